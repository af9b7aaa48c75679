#pragma once

namespace widmo {

/// Why the audio devices could not be started or stopped working.
enum class AudioIOFailure {
    None,
    NoInputDevice,    ///< no input device exists
    InputOpenFailed,  ///< the input device refused the stream (rate, format, busy)
    NoOutputDevice,   ///< no output device exists
    OutputOpenFailed, ///< the output device refused the stream
    InputDeviceLost,  ///< the input device disappeared or its stream broke while running
    OutputDeviceLost, ///< the output stream broke while running
    ServerLost,       ///< the connection to the sound server was lost
};

} // namespace widmo
