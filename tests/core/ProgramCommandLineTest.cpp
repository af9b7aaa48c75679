#include "core/ProgramCommandLine.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

namespace widmo {
namespace {

const ProgramCommandLine::Program kStudio{QStringLiteral("widmo-studio"),
                                          QStringLiteral("Widmo Studio"), true};

// What answerInformationOption wrote, and its result.
std::pair<std::optional<int>, std::string> answer(const QStringList& arguments) {
    FILE* out = std::tmpfile();
    const auto status = ProgramCommandLine::answerInformationOption(arguments, kStudio, out);
    std::rewind(out);
    std::string text;
    for (int c; (c = std::fgetc(out)) != EOF;)
        text += static_cast<char>(c);
    std::fclose(out);
    return {status, text};
}

TEST(ProgramCommandLine, informationOptions_firstAnsweredOnly_notAfterDoubleDash) {
    const auto [versionStatus, version] =
        answer({"widmo-studio", "-style", "fusion", "-V", "--help"});
    EXPECT_EQ(versionStatus, 0);
    EXPECT_EQ(version,
              ProgramCommandLine::versionText(QStringLiteral("widmo-studio")).toStdString());

    const auto [helpStatus, help] = answer({"widmo-studio", "--help", "--version"});
    EXPECT_EQ(helpStatus, 0);
    EXPECT_EQ(help.rfind("Usage: widmo-studio [options] [FILE...]\n", 0), 0u);

    // A file may be called "--version" when it follows "--".
    const auto [fileStatus, nothing] = answer({"widmo-studio", "--", "--version", "a.wav"});
    EXPECT_FALSE(fileStatus.has_value());
    EXPECT_TRUE(nothing.empty());
}

TEST(ProgramCommandLine, fileArguments_skipOptionsAndProgram_takeAllAfterDoubleDash) {
    EXPECT_EQ(ProgramCommandLine::fileArguments({"widmo", "-x", "a.wav", "b.flac", "--", "-c.ogg"}),
              (QStringList{"a.wav", "b.flac", "-c.ogg"}));
    EXPECT_TRUE(ProgramCommandLine::fileArguments({"a.wav"}).isEmpty());
}

} // namespace
} // namespace widmo
