#include "engine/LevelLog.h"
#include "dsp/SoundLevelMeter.h"

#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <limits>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace widmo {
namespace {

PeriodLevels period(double leq) {
    PeriodLevels p;
    p.leq = leq;
    p.maxFast = leq + 1.0;
    p.maxSlow = leq + 0.5;
    p.peak = leq + 3.0;
    p.seconds = 1.0;
    return p;
}

QList<QByteArray> linesOf(const QString& path) {
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly))
        return {};
    return f.readAll().split('\n');
}

// Each line is on disk once written (a kill loses at most the period under
// way), levels take the offset, silence is an empty field, and a second
// recording appends without a second header.
TEST(LevelLogTest, linesAreOnDiskAsWritten_offsetApplied_appendedWithOneHeader) {
    QTemporaryDir dir;
    const QString path = dir.filePath("levels.csv");
    LevelLog log;
    QString error;
    ASSERT_TRUE(log.open(path, "A", "dBA", "dBC", &error)) << error.toStdString();
    ASSERT_TRUE(log.write(0.0, period(-30.0), 100.0));
    PeriodLevels silent = period(0.0);
    silent.leq = silent.maxFast = silent.maxSlow = silent.peak =
        -std::numeric_limits<double>::infinity();
    ASSERT_TRUE(log.write(1.0, silent, 100.0));
    // Read while the log is still open, as after a kill.
    QList<QByteArray> lines = linesOf(path);
    ASSERT_EQ(lines.size(), 4);
    EXPECT_EQ(lines[0], "time,start_s,LAeq_dBA,LAFmax_dBA,LASmax_dBA,LCpeak_dBC");
    EXPECT_TRUE(lines[1].endsWith(",0.000,70.0,71.0,70.5,73.0")) << lines[1].toStdString();
    EXPECT_TRUE(lines[2].endsWith(",1.000,,,,")) << lines[2].toStdString();
    log.close();

    ASSERT_TRUE(log.open(path, "A", "dBA", "dBC", &error));
    ASSERT_TRUE(log.write(0.0, period(-40.0), 100.0));
    log.close();
    lines = linesOf(path);
    ASSERT_EQ(lines.size(), 5);
    EXPECT_TRUE(lines[3].endsWith(",0.000,60.0,61.0,60.5,63.0"));

    EXPECT_FALSE(log.open(dir.filePath("no/such/folder/levels.csv"), "A", "dBA", "dBC", &error));
    EXPECT_TRUE(error.contains("no/such/folder/levels.csv")) << error.toStdString();
}

// A disk that fills during the log: the write that does not fit fails, the
// log says so and writes nothing more, and the lines before it are intact.
// The full disk is a file size limit in a child process.
TEST(LevelLogTest, fullDisk_failsTheWriteThatDoesNotFit_keepsTheLinesBefore) {
    QTemporaryDir dir;
    const QString path = dir.filePath("levels.csv");
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        std::signal(SIGXFSZ, SIG_IGN); // the write fails with EFBIG instead
        // The header (57 bytes) and two lines (54 each) fit, a third does not.
        const rlimit limit{190, 190};
        setrlimit(RLIMIT_FSIZE, &limit);
        LevelLog log;
        QString error;
        if (!log.open(path, "Z", "dBFS", "dBFS", &error))
            std::_Exit(10);
        int written = 0;
        for (int i = 0; i < 10 && log.write(i, period(-20.0 - i), 0.0); ++i)
            ++written;
        const bool stopped = log.failed() && !log.write(11.0, period(-20.0), 0.0);
        std::_Exit(stopped ? written : 20);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    const int written = WEXITSTATUS(status);
    EXPECT_EQ(written, 2);
    const QList<QByteArray> lines = linesOf(path);
    ASSERT_GE(lines.size(), 3);
    EXPECT_TRUE(lines[1].endsWith(",0.000,-20.0,-19.0,-19.5,-17.0")) << lines[1].toStdString();
    EXPECT_TRUE(lines[2].endsWith(",1.000,-21.0,-20.0,-20.5,-18.0")) << lines[2].toStdString();
}

} // namespace
} // namespace widmo
