// Standard MIDI Files (formats 0, 1 and 2) read into one timeline of
// messages with their times in seconds, for `ambrel play`.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace ambrel::midi {

struct SmfEvent {
    double seconds = 0;     // from the start of the file
    std::uint64_t tick = 0; // absolute, in the file's division
    int track = 0;
    std::vector<std::uint8_t> bytes; // what goes on the wire (running status expanded)
};

struct Smf {
    int format = 0;
    int trackCount = 0;    // MTrk chunks read
    int division = 0;      // the header's raw division word
    double duration = 0;   // seconds up to the last event (or end-of-track)
    std::vector<SmfEvent> events; // time order; equal times keep track order
};

// Parses a whole file held in memory. On failure returns false with a reason
// ("track 2: truncated event at offset 118") and leaves `smf` empty.
bool parseSmf(const std::uint8_t *data, std::size_t length, Smf *smf, std::string *error);
// The largest file read: far above any song (a 17-track file of 54,000
// messages is under 400 KB), far below what would hurt the machine.
constexpr std::size_t kMaxSmfBytes = 16u << 20;
// Reads and parses a file: its header is checked before the rest is read,
// so that a directory, a device or any other file is refused at once. "-"
// is standard input.
bool readSmfFile(const std::string &path, Smf *smf, std::string *error);

} // namespace ambrel::midi
