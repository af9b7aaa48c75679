#include "batch/BatchCommand.h"

#include "batch/BatchRunner.h"
#include "batch/BatchSettings.h"
#include "core/ProgramCommandLine.h"
#include "dsp/FFTPlanCache.h"
#include "dsp/MicrophoneCalibration.h"

#include <QString>

#include <algorithm>
#include <thread>
#include <unistd.h>

namespace widmo {

namespace {

struct IntChoice {
    const char* name;
    int32_t value;
};

// Reads the value of an option that takes one: "--name value" or "--name=value".
bool takeValue(const QStringList& args, qsizetype* i, const QString& name, QString* value) {
    const QString& a = args[*i];
    if (a == name) {
        if (*i + 1 >= args.size())
            return false;
        *value = args[++*i];
        return true;
    }
    if (a.startsWith(name + QLatin1Char('='))) {
        *value = a.mid(name.size() + 1);
        return true;
    }
    return false;
}

// The --window values by window type.
const char* const kWindowOptionNames[] = {"rectangle", "blackman", "hamming", "hann"};

} // namespace

QString BatchCommand::helpText() {
    const BatchSettings d = BatchSettings::systemDefaults();
    return QStringLiteral(
               "Usage: widmo-analyze [options] FILE...\n"
               "Analyses audio files (any format libsndfile reads) without a window and writes,\n"
               "per file, what the options ask for. A file is read in blocks and analysed as it\n"
               "is read, so memory does not grow with its length. FILE - reads a WAV, AIFF or\n"
               "FLAC stream from standard input (once), named 'stdin' in the outputs.\n"
               "\n"
               "Outputs (at least one):\n"
               "  --spectrogram      PNG of the spectrogram, one column per interval, with\n"
               "                     labelled time and frequency axes: NAME.png\n"
               "  --width PX         with --spectrogram: the whole file in PX columns\n"
               "                     (16..65536), each the maximum of the FFTs that fall in\n"
               "                     it (a file, or a stream whose header gives its length)\n"
               "  --pool P           max or mean: with --width, a column is the maximum or the\n"
               "                     mean power of its FFTs [max]\n"
               "  --tile SECONDS     with --spectrogram: one image per stretch of SECONDS,\n"
               "                     NAME.0001.png, NAME.0002.png, ..., the time axis in the\n"
               "                     file's own time (h:mm:ss from 10 minutes on)\n"
               "  --ltsa SECONDS     long-term spectral average: the mean power spectrum of\n"
               "                     every stretch of SECONDS (0.1..86400) as an image\n"
               "                     (NAME.ltsa.png, one column per stretch), as CSV\n"
               "                     (NAME.ltsa.csv: start_s and one level in dB per FFT bin)\n"
               "                     and as NumPy float32 array (NAME.ltsa.npy, one row per\n"
               "                     stretch) with NAME.ltsa.json naming its frequencies_hz\n"
               "                     and start_s\n"
               "  --spectrum         average power spectrum as CSV (frequency_hz,level_db):\n"
               "                     NAME.spectrum.csv\n"
               "  --bands B          octave-band levels as CSV for B = 1, 3, 6 or 12 bands per\n"
               "                     octave (centre_hz,level_db,min_db,max_db): NAME.bandsB.csv;\n"
               "                     level is the mean power, min and max those of one interval\n"
               "  --summary          one JSON line per file on standard output: path,\n"
               "                     sample_rate, channels, duration_s, peak_dbfs, rms_dbfs\n"
               "                     (20 log10 of the RMS: a full-scale sine reads -3.01),\n"
               "                     strongest_hz (the strongest bin of the average spectrum);\n"
               "                     with any option of the next part also LWeq, LWFmax,\n"
               "                     LWSmax and LCpeak for weighting W as laeq_dbfs,\n"
               "                     lafmax_dbfs, lasmax_dbfs, lcpeak_dbfs (W = a; lceq_...,\n"
               "                     lzeq_... for C and Z)\n"
               "  --levels PERIOD    sound levels per PERIOD seconds (0.1..3600) as CSV:\n"
               "                     NAME.levels.csv, columns start_s, leq_dbfs_W,\n"
               "                     max_fast_dbfs_W, max_slow_dbfs_W, peak_dbfs_c (W the\n"
               "                     weighting letter; Fast 125 ms, Slow 1 s; a full-scale\n"
               "                     sine reads 0 as a level and +3.01 as a peak)\n"
               "\n"
               "Sound levels:\n"
               "  --weighting W      frequency weighting A, C or Z of the levels [Z]\n"
               "  --calibration FILE microphone calibration file (frequency and dB per line):\n"
               "                     its response is removed from the spectrum, bands,\n"
               "                     spectrogram and levels (not from peak/rms of --summary)\n"
               "  --spl-offset DB    adds DB to every level output, which is then dB SPL:\n"
               "                     _dbfs becomes _db_spl in the summary keys and level_db\n"
               "                     becomes level_db_spl in CSV headers; the levels CSV\n"
               "                     reads leq_dbW, max_fast_dbW, max_slow_dbW, peak_dbc\n"
               "\n"
               "Analysis (the analyser's defaults in brackets):\n"
               "  --fft-size N       FFT size, a power of two from 256 to 65536 [%1]\n"
               "  --window W         rectangle, blackman, hamming or hann [%2]\n"
               "  --interval P       hop between FFTs: 2^P times the rate's interval of about\n"
               "                     1 ms, P = 0..4 (at 44.1 or 48 kHz: 32, 64, 128, 256, 512\n"
               "                     samples) [%3]\n"
               "  --rows R           spectrogram rows: 512, 1024, 2048 or 4096 [%4]\n"
               "  --min-db L         level drawn in the lowest colour, dB below full scale\n"
               "                     (-200..-1) [%5]\n"
               "  --colors C         colour scheme: 0 coloured, 1 black, 2 white [%6]\n"
               "  --log              logarithmic frequency axis of the spectrogram (default\n"
               "                     linear)\n"
               "  --channel N        analyse channel N (1 = first) instead of the mono mix\n"
               "\n"
               "Running:\n"
               "  -o, --output DIR   write the outputs into DIR (made if missing) instead of\n"
               "                     beside each file; names are the file's name plus the\n"
               "                     suffixes above\n"
               "  --jobs N           threads, across files and within a long file; the\n"
               "                     outputs do not depend on N [the number of cores]\n"
               "  --name NAME        the name of standard input's outputs [stdin]\n"
               "  --skip-existing    leave out a file whose outputs all exist (resumes an\n"
               "                     interrupted run)\n"
               "  --no-progress      no progress bar (it is drawn, with the time left, only\n"
               "                     when standard error is a terminal)\n"
               "  -h, --help         this text\n"
               "  -V, --version      the program's name and version\n"
               "\n"
               "Outputs are written to a temporary file and renamed, so an interrupted run\n"
               "never leaves a partial file under a final name. A file that cannot be done\n"
               "gets one line on standard error; the others are still done.\n"
               "Exit status: 0 all files done, 1 some file failed, 2 a wrong option.\n"
               "\n"
               "Examples:\n"
               "  widmo-analyze --spectrogram --log --colors 2 night.flac\n"
               "  widmo-analyze --spectrum --bands 3 --summary -o out/ *.wav > summary.jsonl\n"
               "  widmo-analyze --spectrogram --width 4000 --ltsa 60 overnight.flac\n"
               "  sox in.flac -t wav - | widmo-analyze --summary --name in -\n")
        .arg(d.fftSize)
        .arg(QLatin1String(kWindowOptionNames[std::clamp(d.fftWindowType, 0, 3)]))
        .arg(d.intervalSizePower)
        .arg(d.rows)
        .arg(static_cast<double>(d.minimumLevelDB))
        .arg(d.colorType);
}

int BatchCommand::run(const QStringList& arguments, FILE* out, FILE* err) {
    BatchSettings settings = BatchSettings::systemDefaults();
    BatchRunner::Options options;
    options.jobs = static_cast<int32_t>(std::max(1u, std::thread::hardware_concurrency()));
    bool progress = isatty(fileno(err)) != 0;
    bool onlyFiles = false;
    bool poolGiven = false;

    const auto usage = [&](const QString& message) {
        std::fprintf(err, "widmo-analyze: %s\nTry 'widmo-analyze --help'.\n",
                     message.toLocal8Bit().constData());
        return kUsageError;
    };
    // An integer value among `allowed` (empty: any in [lo, hi]).
    const auto intValue = [](const QString& text, int32_t lo, int32_t hi,
                             std::initializer_list<int32_t> allowed, int32_t* v) {
        bool ok = false;
        const int parsed = text.toInt(&ok);
        if (!ok || parsed < lo || parsed > hi)
            return false;
        if (allowed.size() > 0 &&
            std::find(allowed.begin(), allowed.end(), parsed) == allowed.end())
            return false;
        *v = parsed;
        return true;
    };

    for (qsizetype i = 1; i < arguments.size(); ++i) {
        const QString& a = arguments[i];
        QString v;
        if (onlyFiles || !a.startsWith(QLatin1Char('-')) || a == QLatin1String("-")) {
            options.files << a;
        } else if (a == QLatin1String("--")) {
            onlyFiles = true;
        } else if (a == QLatin1String("-h") || a == QLatin1String("--help")) {
            std::fputs(helpText().toLocal8Bit().constData(), out);
            return 0;
        } else if (a == QLatin1String("-V") || a == QLatin1String("--version")) {
            std::fputs(ProgramCommandLine::versionText(QStringLiteral("widmo-analyze"))
                           .toLocal8Bit()
                           .constData(),
                       out);
            return 0;
        } else if (a == QLatin1String("--spectrogram")) {
            settings.spectrogram = true;
        } else if (a == QLatin1String("--spectrum")) {
            settings.spectrum = true;
        } else if (a == QLatin1String("--summary")) {
            settings.summary = true;
        } else if (a == QLatin1String("--log")) {
            settings.logFrequency = true;
        } else if (a == QLatin1String("--skip-existing")) {
            options.skipExisting = true;
        } else if (a == QLatin1String("--no-progress")) {
            progress = false;
        } else if (takeValue(arguments, &i, QStringLiteral("--bands"), &v)) {
            if (!intValue(v, 1, 12, {1, 3, 6, 12}, &settings.bandsPerOctave))
                return usage(QStringLiteral("--bands takes 1, 3, 6 or 12, not '%1'").arg(v));
        } else if (takeValue(arguments, &i, QStringLiteral("--fft-size"), &v)) {
            if (!intValue(v, 256, 65536, {256, 512, 1024, 2048, 4096, 8192, 16384, 32768, 65536},
                          &settings.fftSize))
                return usage(QStringLiteral("--fft-size takes a power of two from 256 to 65536, "
                                            "not '%1'")
                                 .arg(v));
        } else if (takeValue(arguments, &i, QStringLiteral("--window"), &v)) {
            static const IntChoice windows[] = {
                {"rectangle", 0}, {"blackman", 1}, {"hamming", 2}, {"hann", 3}, {"hanning", 3}};
            const auto it =
                std::find_if(std::begin(windows), std::end(windows), [&](const auto& w) {
                    return v.compare(QLatin1String(w.name), Qt::CaseInsensitive) == 0;
                });
            if (it == std::end(windows))
                return usage(
                    QStringLiteral("--window takes rectangle, blackman, hamming or hann, not '%1'")
                        .arg(v));
            settings.fftWindowType = it->value;
        } else if (takeValue(arguments, &i, QStringLiteral("--interval"), &v)) {
            if (!intValue(v, 0, 4, {}, &settings.intervalSizePower))
                return usage(QStringLiteral("--interval takes 0 to 4, not '%1'").arg(v));
        } else if (takeValue(arguments, &i, QStringLiteral("--rows"), &v)) {
            if (!intValue(v, 512, 4096, {512, 1024, 2048, 4096}, &settings.rows))
                return usage(
                    QStringLiteral("--rows takes 512, 1024, 2048 or 4096, not '%1'").arg(v));
        } else if (takeValue(arguments, &i, QStringLiteral("--min-db"), &v)) {
            bool ok = false;
            const float level = v.toFloat(&ok);
            if (!ok || !(level >= -200.0f && level <= -1.0f))
                return usage(
                    QStringLiteral("--min-db takes a level from -200 to -1, not '%1'").arg(v));
            settings.minimumLevelDB = level;
        } else if (takeValue(arguments, &i, QStringLiteral("--colors"), &v)) {
            if (!intValue(v, 0, 2, {}, &settings.colorType))
                return usage(QStringLiteral("--colors takes 0, 1 or 2, not '%1'").arg(v));
        } else if (takeValue(arguments, &i, QStringLiteral("--channel"), &v)) {
            if (!intValue(v, 1, 1 << 16, {}, &settings.channel))
                return usage(
                    QStringLiteral("--channel takes a channel number from 1, not '%1'").arg(v));
        } else if (takeValue(arguments, &i, QStringLiteral("--levels"), &v)) {
            bool ok = false;
            const double period = v.toDouble(&ok);
            if (!ok || !(period >= 0.1 && period <= 3600.0))
                return usage(
                    QStringLiteral("--levels takes a period from 0.1 to 3600 s, not '%1'").arg(v));
            settings.levelsPeriod = period;
            settings.levelOptionGiven = true;
        } else if (takeValue(arguments, &i, QStringLiteral("--weighting"), &v)) {
            static const IntChoice weightings[] = {{"A", int32_t(Weighting::A)},
                                                   {"C", int32_t(Weighting::C)},
                                                   {"Z", int32_t(Weighting::Z)}};
            const auto it =
                std::find_if(std::begin(weightings), std::end(weightings), [&](const auto& w) {
                    return v.compare(QLatin1String(w.name), Qt::CaseInsensitive) == 0;
                });
            if (it == std::end(weightings))
                return usage(QStringLiteral("--weighting takes A, C or Z, not '%1'").arg(v));
            settings.weighting = static_cast<Weighting>(it->value);
            settings.levelOptionGiven = true;
        } else if (takeValue(arguments, &i, QStringLiteral("--spl-offset"), &v)) {
            bool ok = false;
            const double offset = v.toDouble(&ok);
            if (!ok || !(offset >= -200.0 && offset <= 300.0))
                return usage(
                    QStringLiteral("--spl-offset takes dB from -200 to 300, not '%1'").arg(v));
            settings.splOffsetDB = offset;
            settings.levelOptionGiven = true;
        } else if (takeValue(arguments, &i, QStringLiteral("--calibration"), &v)) {
            QString error;
            auto calibration = MicrophoneCalibration::load(v, &error);
            if (!calibration) {
                std::fprintf(err, "widmo-analyze: %s\n", error.toLocal8Bit().constData());
                return kUsageError;
            }
            settings.calibration =
                std::make_shared<const MicrophoneCalibration>(std::move(*calibration));
            settings.levelOptionGiven = true;
        } else if (takeValue(arguments, &i, QStringLiteral("--width"), &v)) {
            if (!intValue(v, 16, 65536, {}, &settings.width))
                return usage(QStringLiteral("--width takes 16 to 65536 pixels, not '%1'").arg(v));
        } else if (takeValue(arguments, &i, QStringLiteral("--pool"), &v)) {
            if (v != QLatin1String("max") && v != QLatin1String("mean"))
                return usage(QStringLiteral("--pool takes max or mean, not '%1'").arg(v));
            settings.poolMean = v == QLatin1String("mean");
            poolGiven = true;
        } else if (takeValue(arguments, &i, QStringLiteral("--tile"), &v)) {
            bool ok = false;
            const double seconds = v.toDouble(&ok);
            if (!ok || !(seconds >= 0.1 && seconds <= 86400.0))
                return usage(QStringLiteral("--tile takes 0.1 to 86400 seconds, not '%1'").arg(v));
            settings.tileSeconds = seconds;
        } else if (takeValue(arguments, &i, QStringLiteral("--ltsa"), &v)) {
            bool ok = false;
            const double seconds = v.toDouble(&ok);
            if (!ok || !(seconds >= 0.1 && seconds <= 86400.0))
                return usage(QStringLiteral("--ltsa takes 0.1 to 86400 seconds, not '%1'").arg(v));
            settings.ltsaSeconds = seconds;
        } else if (takeValue(arguments, &i, QStringLiteral("--name"), &v)) {
            if (v.isEmpty() || v.contains(QLatin1Char('/')))
                return usage(QStringLiteral("--name takes a file name without a folder"));
            options.stdinName = v;
        } else if (takeValue(arguments, &i, QStringLiteral("--jobs"), &v)) {
            if (!intValue(v, 1, 1024, {}, &options.jobs))
                return usage(
                    QStringLiteral("--jobs takes a number of threads from 1, not '%1'").arg(v));
        } else if (takeValue(arguments, &i, QStringLiteral("--output"), &v) ||
                   takeValue(arguments, &i, QStringLiteral("-o"), &v)) {
            if (v.isEmpty())
                return usage(QStringLiteral("--output takes a folder"));
            options.outputDirectory = v;
        } else {
            return usage(QStringLiteral("unknown option or missing value: '%1'").arg(a));
        }
    }
    if ((settings.width > 0 || settings.tileSeconds > 0.0) && !settings.spectrogram)
        settings.spectrogram = true;
    if (settings.width > 0 && settings.tileSeconds > 0.0)
        return usage(QStringLiteral("--width and --tile exclude each other"));
    if (poolGiven && settings.width == 0)
        return usage(QStringLiteral("--pool goes with --width"));
    if (!settings.spectrogram && !settings.spectrum && settings.bandsPerOctave == 0 &&
        !settings.summary && settings.levelsPeriod <= 0.0 && settings.ltsaSeconds <= 0.0)
        return usage(QStringLiteral("nothing to do: choose --spectrogram, --spectrum, --bands, "
                                    "--levels, --ltsa or --summary"));
    if (options.files.isEmpty())
        return usage(QStringLiteral("no file given"));
    options.progress = progress;

    // Made before the threads start: they share it.
    FFTPlanCache::shared();
    BatchRunner runner(settings, options, out, err);
    return runner.run();
}

} // namespace widmo
