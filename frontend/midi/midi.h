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

// The messages a port makes of a byte stream, cut exactly as the driver's
// parser cuts them (running status expanded, real-time bytes at once, a
// SysEx ended early by a status byte closed with F7), with what the driver
// would silently drop reported instead. The daemon paces a port's writers by
// these messages and the command checks what it is about to send with it.
class Framer {
public:
    using Sink = std::function<void(const std::uint8_t *message, std::size_t length)>;
    enum class Fault {
        None,
        StrayData,    // a data byte with no status to belong to, or an F7 outside a SysEx
        CutShort,     // a status byte came before the message begun was complete
        SysexTooLong, // the SysEx grows past `sysexLimit` bytes, F0 and F7 included
    };

    explicit Framer(std::size_t sysexLimit) : limit_(sysexLimit < 3 ? 3 : sysexLimit) {}

    // Feeds one byte. On a fault the byte is not taken and nothing changes:
    // the caller decides (dropBegun() discards the broken message).
    Fault put(std::uint8_t byte, const Sink &sink);
    // Feeds bytes until the first fault; returns it and, in *taken, how
    // many bytes went in.
    Fault feed(const std::uint8_t *data, std::size_t length, const Sink &sink, std::size_t *taken);
    // Bytes of the message begun and not yet complete (0: between messages).
    std::size_t begun() const { return message_.size(); }
    // Bytes fed so far (in a sink: up to the end of the message handed
    // out), and the count at which the begun message started.
    std::uint64_t fed() const { return fed_; }
    std::uint64_t begunAt() const { return begunAt_; }
    void dropBegun() { message_.clear(); }
    std::size_t sysexLimit() const { return limit_; }

private:
    void start(std::uint8_t status, const Sink &sink);

    std::size_t limit_;
    std::vector<std::uint8_t> message_;
    std::uint8_t runningStatus_ = 0;
    std::uint64_t fed_ = 0;
    std::uint64_t begunAt_ = 0;
};

// "stray data byte", "message cut short", "SysEx longer than the port carries".
const char *faultText(Framer::Fault fault);

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
