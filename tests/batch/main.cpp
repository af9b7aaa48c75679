#include "HeadlessTestMain.h"

int main(int argc, char** argv) { return widmo::test::runHeadlessTests(argc, argv, true); }
