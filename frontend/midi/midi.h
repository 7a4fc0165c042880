// MIDI as people read it: splitting a byte stream into messages and naming
// them ("Note On  ch 1  C4 (60)  velocity 100"). Used by the `ambrel` command
// and the front end's tests.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace ambrel::midi {

// Data bytes that follow a status byte; -1 for System Exclusive (open-ended).
int dataLength(std::uint8_t status);

// Cuts an arbitrary byte stream into whole messages. Running status is
// expanded (every channel message handed out carries its status byte);
// real-time bytes come out at once, even in the middle of another message;
// a System Exclusive message ends at F7 or at the next status byte that is
// not real-time (it is then handed out without F7). Data bytes with no
// status to belong to are counted and dropped.
class Splitter {
public:
    using Sink = std::function<void(const std::uint8_t *message, std::size_t length)>;

    // SysEx bytes kept per message; longer ones are handed out cut to this
    // length (sysexLength() still counts them all).
    explicit Splitter(std::size_t maxSysex = 1u << 21) : maxSysex_(maxSysex) {}

    void feed(const std::uint8_t *data, std::size_t length, const Sink &sink);
    // Full length of the last SysEx handed out, F0 and F7 included.
    std::size_t sysexLength() const { return sysexLength_; }
    std::size_t droppedBytes() const { return dropped_; }

private:
    void finishSysex(const Sink &sink, bool terminated);

    std::size_t maxSysex_;
    std::vector<std::uint8_t> message_;
    std::uint8_t runningStatus_ = 0;
    int needed_ = 0;
    bool inSysex_ = false;
    std::size_t sysexLength_ = 0;
    std::size_t sysexCount_ = 0;
    std::size_t dropped_ = 0;
};

// "C4" for 60, "C#-1" for 1, "G9" for 127 (middle C is C4).
std::string noteName(int note);
// "Modulation", "Sustain Pedal", "All Notes Off", ... or "" when unnamed.
std::string controllerName(int controller);
// One line for one whole message (as the Splitter hands them out).
// `fullLength` is the message's real length when it was cut (SysEx).
std::string describe(const std::uint8_t *message, std::size_t length, std::size_t fullLength = 0);
// "90 3C 64", at most `max` bytes followed by " ..." when there are more.
std::string hex(const std::uint8_t *data, std::size_t length, std::size_t max = 16);
// Parses "90 3C 64", "903C64", "0x90,0x3c" into bytes; false on anything else.
bool parseHex(const std::string &text, std::vector<std::uint8_t> *bytes);

} // namespace ambrel::midi
