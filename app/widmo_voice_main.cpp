// The `widmo-voice` executable: the shared application with its product record.
#include "core/AnalyzerFeatures.h"
#include "ui/AppLifecycle.h"

int main(int argc, char** argv) {
    return widmo::AppLifecycle::run(argc, argv, widmo::AnalyzerFeatures::voiceProduct(),
                                    QStringLiteral("widmo-voice"), QStringLiteral("Widmo Voice"));
}
