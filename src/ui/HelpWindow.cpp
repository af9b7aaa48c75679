#include "ui/HelpWindow.h"

#include "core/AnalyzerDefaults.h"
#include "core/AnalyzerFeatures.h"
#include "render/DeviceClass.h"

#include <QDesktopServices>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QShortcut>
#include <QUrl>
#include <QVBoxLayout>

namespace widmo {

namespace {

// A row of text under a bold sub-header of its own.
QWidget* extendedCell(const QString& header, const QString& body) {
    auto* cell = new QWidget;
    cell->setObjectName("HelpHeadedRow");
    auto* layout = new QVBoxLayout(cell);
    layout->setContentsMargins(0, 0, 0, 0);
    auto* headerLabel = new QLabel(header, cell);
    headerLabel->setFont(DeviceClass::systemFont(14.0, true));
    auto* bodyLabel = new QLabel(body, cell);
    bodyLabel->setWordWrap(true);
    layout->addWidget(headerLabel);
    layout->addWidget(bodyLabel);
    return cell;
}

QWidget* standardCell(const QString& body) {
    auto* label = new QLabel(body);
    label->setObjectName("HelpRow");
    label->setWordWrap(true);
    return label;
}

// The row text of the spectrum product's FFT topic; the spectrogram variant adds a sentence.
const char* const kFftText = "The program allows you to choose size of the FFT window and between "
                             "Rectangle, Blackman, Hamming, Hanning window type.";

} // namespace

HelpWindow::HelpWindow(const AnalyzerFeatures& features, QWidget* parent)
    : SectionedPage(parent), helpSet_(helpSetForFeatures(features)) {
    setTitle("Help");
    buildCatalogue();
    for (const QKeySequence& keys :
         {QKeySequence(Qt::Key_Escape), QKeySequence(Qt::CTRL | Qt::Key_W)}) {
        auto* close = new QShortcut(keys, this);
        close->setContext(Qt::WindowShortcut);
        connect(close, &QShortcut::activated, this, &QWidget::close);
    }

    // Application name, version and home page above the topics.
    auto* top = new QWidget;
    auto* topLayout = new QHBoxLayout(top);
    topLayout->setContentsMargins(kRowInset, 12, kRowInset, 4);
    auto* name = new QLabel("Widmo " + AnalyzerDefaults::versionBuild(), top);
    name->setFont(DeviceClass::systemFont(17.0, true));
    auto* web = new QPushButton("Home page", top);
    connect(web, &QPushButton::clicked, this, [] { openWebPage(); });
    topLayout->addWidget(name);
    topLayout->addStretch(1);
    topLayout->addWidget(web);
    setTableHeaderView(top);

    for (int s = 0; s < helpContents_.size(); ++s) {
        const int section = addSection(titleForHeader(helpHeaders_[s]));
        const QVariant& content = helpContents_[s];
        const QStringList subHeaders = helpHeaders_[s].toStringList().mid(1);
        const int rows = numberOfRowsForContent(content);
        for (int r = 0; r < rows; ++r) {
            if (isHiddenSection(section)) {
                // Rows of topics not shown stay empty.
                auto* empty = new QWidget;
                empty->setObjectName("HelpEmptyRow");
                addRow(section, empty);
                continue;
            }
            const QString text = content.typeId() == QMetaType::QString
                                     ? content.toString()
                                     : content.toStringList().value(r);
            if (r < subHeaders.size())
                addRow(section, extendedCell(subHeaders[r], text));
            else
                addRow(section, standardCell(text));
        }
    }
}

QSet<QString> HelpWindow::helpSetForFeatures(const AnalyzerFeatures& features) {
    if (features.featureVoiceEGG())
        return {"Audio input",
                "Audio input issues",
                "Analysis",
                "Charts",
                "Spectrum",
                "Spectrum scales",
                "FFT window size and type ",
                "Oscilloscope",
                "Level meter",
                "Electroglottograph (EGG)",
                "Closed quotient",
                "Gestures",
                "Bottom Slider",
                "Export and sharing",
                "Settings"};
    if (features.featureSpectrogramEnabled())
        // Every topic but the voice product's and the variants written for
        // products without a spectrogram.
        return {"Analysis",
                "Audio input",
                "Audio input issues",
                "Charts",
                "Picture in picture",
                "Spectrum",
                "FFT window size and type",
                "Oscilloscope",
                "Octave RTA",
                "Level meter",
                "Sound levels",
                "Spectrogram",
                "Spectrogram resolution",
                "Maximum spectrogram time and size",
                "Spectrogram color",
                "Spectrogram recalculation",
                "Spectrogram trigger",
                "Amplitude scales",
                "Frequency scales",
                "Gestures",
                "Bottom Slider",
                "Eraser",
                "Recording",
                "Playback",
                "Slow down playback",
                "Real-time transposition",
                "Import and export",
                "Export and sharing",
                "Settings"};
    return {"Audio input", "Audio input issues", "Export and sharing", "FFT window size and type ",
            "Gestures",    "Spectrum",           "Spectrum scales",    "Sound levels"};
}

int HelpWindow::numberOfRowsForContent(const QVariant& content) {
    if (content.typeId() == QMetaType::QString)
        return 1;
    return int(content.toStringList().size());
}

QString HelpWindow::titleForHeader(const QVariant& header) {
    if (header.typeId() == QMetaType::QString)
        return header.toString();
    return header.toStringList().value(0);
}

bool HelpWindow::isHiddenSection(int section) const {
    if (section < 0 || section >= helpHeaders_.size())
        return true;
    return !helpSet_.contains(titleForHeader(helpHeaders_[section]));
}

bool HelpWindow::openWebPage() {
    return QDesktopServices::openUrl(QUrl(QString::fromLatin1(kHomePageUrl)));
}

void HelpWindow::buildCatalogue() {
    auto topic = [this](const QVariant& header, const QVariant& content) {
        helpHeaders_.append(header);
        helpContents_.append(content);
    };

    topic("Analysis",
          "The program cuts the sound into short intervals and computes the spectrum of each "
          "one as soon as it is complete, so what you see is never more than a few "
          "milliseconds old. Each spectrum is the FFT of the newest samples, multiplied by "
          "the chosen window.");
    topic(QStringList{"Audio input", "Audio input ", "Preferred sample rate"},
          QStringList{
              "Sound comes from the input chosen in Settings > Audio input: any microphone, "
              "line input or USB interface the sound server (PulseAudio or PipeWire) offers. "
              "Choose the device, then the channel (1 or 2) to analyse. The software gain "
              "amplifies or attenuates the signal before analysis; the hardware gain is the "
              "capture volume of the device, when the device allows it to be set.",
              "The sample rate is chosen in Settings > General. The device is opened at that "
              "rate; if it cannot record at that rate, the sound server converts it. A higher "
              "rate shows higher frequencies, up to half the sample rate."});
    topic(QStringList{"Audio input issues", "Recording disabled",
                      "Problem with setting input device"},
          QStringList{"If recording does not start, the program tells you why: usually the "
                      "input device is missing, in use by another program, or the sound server "
                      "is not running. Check that the device is connected and enabled in the "
                      "desktop's sound settings, then start again.",
                      "A device that was plugged in or removed appears in or disappears from "
                      "the list of Settings > Audio input within a moment. If the chosen device "
                      "goes away while recording, recording stops; choose another input and "
                      "start again."});
    topic("Charts", "The main window shows the spectrogram and a second chart: the spectrum, the "
                    "oscilloscope or the octave RTA. Switch between them with the buttons on the "
                    "toolbar.");
    topic("Picture in picture",
          "The picture-in-picture button shows the chart that is not in full view as a small "
          "picture in a corner of the other, so that both can be watched at once.");
    topic("Spectrum",
          "The spectrum chart shows the level of every frequency of the newest interval, and "
          "the level meter beside it shows the total level in dBFS. Click the chart to "
          "measure: the cursor reads out frequency, note name and level.");
    topic(QStringList{"Spectrum scales", "Amplitude scale", "Frequency scale"},
          QStringList{"The amplitude scale is logarithmic (dB, from -144 dB up to 0 dB for a "
                      "full-scale sine) or linear. Choose it in Settings > General.",
                      "The frequency scale is logarithmic, so that every octave takes the same "
                      "width, or linear. Choose it in Settings > General."});
    topic("FFT window size and type ", kFftText);
    topic("FFT window size and type",
          QString(kFftText) + " Changing this recalculates the spectrogram.");
    topic("Oscilloscope",
          "The oscilloscope shows the waveform of the newest samples, the ones the FFT is "
          "computed from, with the window applied shown as a line.");
    topic("Octave RTA",
          "The octave RTA shows the level in bands of one, a third, a sixth or a twelfth of an "
          "octave. It can hold the maximum and minimum values of each band, which fall back "
          "after the chosen decay time. Choose bands, averaging and holds in Settings > "
          "Display.");
    topic("Level meter",
          "The level meter shows the level of the whole signal in dBFS: 0 dB is the loudest "
          "sound the input can carry. A sine wave reads its peak level with every window, so "
          "a full-scale sine reads 0 dB; noise reads 3 dB above its RMS level. The meter is "
          "empty while the analysis is stopped.");
    topic("Sound levels",
          "The level meter is a sound level meter: choose the frequency weighting (Z, A or C) "
          "and the time weighting (Fast or Slow) in Settings > Sound level. Beside the meter "
          "stand the level now, Leq since Start (or Reset), the maximum and the C-weighted "
          "peak. To read dB SPL, calibrate the input in Settings > Audio input: load the "
          "microphone's calibration file, or put a sound calibrator on the microphone, start "
          "the analyser and press Calibrate. The level log writes one line per period while "
          "recording.");
    topic("Spectrogram",
          "The spectrogram shows time from left to right and frequency from bottom to top; "
          "the colour shows the level. It keeps every analysed sample, so it can be "
          "recalculated with other settings, played back and exported.");
    topic("Spectrogram resolution",
          "The interval sets how often a new column is added (time resolution); the number of "
          "rows sets the frequency resolution of the picture. Choose both in Settings > "
          "General.");
    topic("Maximum spectrogram time and size",
          "The length of the spectrogram depends on the interval, the number of rows and the "
          "width you choose. Settings > General shows the resulting length in seconds and the "
          "size of the picture in pixels.");
    topic("Spectrogram color",
          "Choose between a coloured scale and dark or light grey scales in Settings > "
          "Display. The grid can be switched on and off there too.");
    topic("Spectrogram recalculation",
          "After a change of the FFT size, window or scales, the spectrogram is recalculated "
          "from the kept samples. The recalculate button does it on request.");
    topic("Spectrogram trigger",
          "With the trigger on, recording waits until the level in the chosen frequency band "
          "rises above the trigger level, then starts with the sound of up to 100 intervals "
          "before that moment. With automatic stop, recording stops when the spectrogram is "
          "full. Set it up in Settings > Trigger.");
    topic("Amplitude scales",
          "The spectrogram and the spectrum show levels in dB or on a linear scale. Choose it "
          "in Settings > Display; the slider at the bottom sets gain and minimum level.");
    topic("Frequency scales",
          "The frequency axis is logarithmic, so that every octave takes the same height, or "
          "linear. Choose it in Settings > Display.");
    topic(QStringList{"Gestures", "Pan gesture", "Pan gesture, two touches", "Tap gesture",
                      "Long press gesture", "Horizontal pinch gesture", "Vertical pinch gesture",
                      "Diagonal pinch gesture", "Double tap", "Keyboard"},
          QStringList{
              "Drag with the left mouse button, or with one finger on a touch screen, to move a "
              "zoomed chart. Let go while moving and the chart glides on.",
              "A drag that starts on the measuring cursor moves the cursor instead of the "
              "chart; on a touch screen the cursor can be dragged with two fingers as well.",
              "Click (tap) on a chart to place the measuring cursor there; click again to "
              "remove it. The cursor reads out frequency, note name and level.",
              "Press and hold the left button, or drag with the right button, to measure "
              "continuously: the cursor follows the pointer.",
              "Turn the mouse wheel to zoom the horizontal axis about the pointer; on a "
              "trackpad or touch screen, pinch sideways.",
              "Hold Shift while turning the wheel to zoom the vertical axis; on a trackpad or "
              "touch screen, pinch up and down.",
              "Hold Ctrl while turning the wheel to zoom both axes at once; on a trackpad or "
              "touch screen, pinch diagonally.",
              "Double click (double tap) to zoom in three times about the pointer; double click "
              "a zoomed chart to zoom out again.",
              "Space starts and pauses the analysis, Ctrl+, opens the settings, F1 opens this "
              "help and Ctrl+Q quits."});
    topic("Bottom Slider",
          "The slider at the bottom of the window sets the gain of the chart shown: the level "
          "gain of the spectrum or oscilloscope, or the gain and minimum level of the "
          "spectrogram. The value is shown beside it.");
    topic(QStringList{"Eraser", "Eraser button"},
          QStringList{"The eraser button clears the spectrogram and the charts and starts a new "
                      "document."});
    topic("Recording",
          "Press the record button, or Space, to start analysing the input; press it again to "
          "pause. A new recording continues the spectrogram until it is full.");
    topic("Playback",
          "The play button plays the recorded sound from the spectrogram, so you can hear what "
          "you see. Input selection is not available during playback.");
    topic("Slow down playback",
          "Playback can be slowed down by one or more octaves, which makes ultrasound audible "
          "at a lower pitch.");
    topic("Real-time transposition",
          "While recording at an ultrasonic sample rate, the program can play what the "
          "microphone hears through the output, about 25 ms behind, so you can listen to bats "
          "and other ultrasound. Settings > Audio input > Listening to ultrasound: "
          "Transposition plays everything 1 to 6 octaves lower at the same pace and the same "
          "loudness; Heterodyne plays only the band around the frequency it is tuned to (2.5, "
          "5 or 10 kHz wide), as clicks and chirps, like a bat detector. Both can be changed "
          "while recording, and both apply to playing back a recording too. The listening "
          "level sets how loud it plays; very loud sound is limited, never clipped. While "
          "heterodyne listening is on, the tuned band is shaded on the spectrogram and the "
          "spectrum with its frequency; the mouse wheel over the spectrogram tunes it by 1 "
          "kHz a notch (with Shift by 100 Hz; Ctrl+wheel still zooms), and Ctrl+click tunes "
          "it to the frequency clicked.");
    topic(QStringList{"Import and export", "Open audio from another application", "Sharing"},
          QStringList{"Open an audio file (WAV, AIFF, FLAC, Ogg, Opus, MP3) from the import "
                      "menu, or give its name on the command line, or drop it on the window; "
                      "the program analyses it as a new spectrogram.",
                      "Export the recorded sound as a WAV file (mono, 32-bit float), or the "
                      "chart as a PNG picture: save it, copy it to the clipboard or open it in "
                      "another application."});
    topic("Export and sharing",
          "The share button saves a picture of the chart as a PNG file, copies it to the "
          "clipboard or opens it in the desktop's image viewer.");
    topic("Electroglottograph (EGG)",
          "With an electroglottograph connected to the second input channel, the program shows "
          "the EGG signal beside the voice on the first channel. Choose the input device in "
          "Settings > Audio input; the voice is channel 1.");
    topic("Closed quotient",
          "The closed quotient is the part of each vocal-fold cycle during which the folds are "
          "closed, measured from the EGG signal and shown with the oscilloscope.");
    topic("Settings",
          "Ctrl+, or the settings button opens the settings. Settings that change the "
          "analysis (sample rate, FFT size and window, interval, scales) take effect when the "
          "settings close; the analysis then restarts with them. Settings are kept between "
          "runs.");
}

} // namespace widmo
