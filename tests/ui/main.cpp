#include "../GuiTestMain.h"

int main(int argc, char** argv) {
    return widmo::test::runGuiTests(argc, argv, "widmo-ui-tests", true);
}
