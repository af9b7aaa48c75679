// The `widmo-studio` executable: the shared application with its product record.
#include "core/AnalyzerFeatures.h"
#include "ui/AppLifecycle.h"

int main(int argc, char** argv) {
    return widmo::AppLifecycle::run(argc, argv, widmo::AnalyzerFeatures::studioProduct(),
                                    QStringLiteral("widmo-studio"), QStringLiteral("Widmo Studio"),
                                    /*audioNode=*/true);
}
