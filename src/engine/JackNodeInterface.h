#pragma once

#include <cstdint>

namespace widmo {

/// The part of the inter-app audio node (`JackNode`) that the analysis
/// engine reads to decide which source it analyses. The audio library
/// implements it.
///
/// Threading: the values are atomics, read from any thread.
class JackNodeInterface {
public:
    virtual ~JackNodeInterface() = default;

    /// Another program is connected to one of the node's ports: the node feeds
    /// the engine instead of the device.
    virtual bool connected() const = 0;
    /// The rate of the node's blocks in Hz (the audio server's rate); 0 while
    /// the node is not published.
    virtual int32_t sampleRate() const = 0;
    /// The largest block the node hands on, in frames (the server's period);
    /// 0 while the node is not published.
    virtual int32_t maxBlockFrames() const = 0;
};

} // namespace widmo
