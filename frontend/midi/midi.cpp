#include "midi.h"

#include <cctype>
#include <cstdio>

namespace ambrel::midi {

int dataLength(std::uint8_t status)
{
    if (status < 0x80) {
        return 0;
    }
    switch (status & 0xF0) {
    case 0xC0:
    case 0xD0:
        return 1;
    case 0xF0:
        break;
    default:
        return 2;
    }
    switch (status) {
    case 0xF0:
        return -1;
    case 0xF1:
    case 0xF3:
        return 1;
    case 0xF2:
        return 2;
    default:
        return 0;
    }
}

void Splitter::finishSysex(const Sink &sink, bool terminated)
{
    if (terminated) {
        ++sysexCount_;
        if (message_.size() < maxSysex_) {
            message_.push_back(0xF7);
        }
    }
    sysexLength_ = sysexCount_;
    inSysex_ = false;
    sink(message_.data(), message_.size());
    message_.clear();
}

void Splitter::feed(const std::uint8_t *data, std::size_t length, const Sink &sink)
{
    for (std::size_t i = 0; i < length; ++i) {
        std::uint8_t b = data[i];
        if (b >= 0xF8) {
            sink(&b, 1); // real-time: interleaves with anything, changes nothing
            continue;
        }
        if (inSysex_) {
            if (b == 0xF7) {
                finishSysex(sink, true);
                continue;
            }
            if (b < 0x80) {
                ++sysexCount_;
                if (message_.size() < maxSysex_) {
                    message_.push_back(b);
                }
                continue;
            }
            finishSysex(sink, false); // a status byte ends it unterminated
        }
        if (b >= 0x80) {
            message_.clear();
            if (b == 0xF7) {
                ++dropped_; // end of a SysEx that never began
                continue;
            }
            if (b == 0xF0) {
                inSysex_ = true;
                sysexCount_ = 1;
                message_.push_back(b);
                runningStatus_ = 0;
                continue;
            }
            runningStatus_ = b < 0xF0 ? b : 0;
            needed_ = dataLength(b);
            message_.push_back(b);
            if (needed_ == 0) {
                sink(message_.data(), message_.size());
                message_.clear();
            }
            continue;
        }
        // A data byte.
        if (message_.empty()) {
            if (runningStatus_ == 0) {
                ++dropped_;
                continue;
            }
            message_.push_back(runningStatus_);
            needed_ = dataLength(runningStatus_);
        }
        message_.push_back(b);
        if (--needed_ == 0) {
            sink(message_.data(), message_.size());
            message_.clear();
        }
    }
}

void Framer::start(std::uint8_t status, const Sink &sink)
{
    // Counted before a message complete in one byte goes out, so that fed()
    // in the sink is where every message ends.
    begunAt_ = fed_++;
    message_.assign(1, status);
    if (status != 0xF0 && dataLength(status) == 0) {
        sink(message_.data(), 1); // F4, F5, F6: complete in one byte
        message_.clear();
    }
}

Framer::Fault Framer::put(std::uint8_t b, const Sink &sink)
{
    if (b >= 0xF8) {
        ++fed_;
        sink(&b, 1);
        return Fault::None;
    }
    bool inSysex = !message_.empty() && message_[0] == 0xF0;
    if (b < 0x80) {
        if (inSysex) {
            // Room is kept for the F7 that must still come.
            if (message_.size() + 2 > limit_) {
                return Fault::SysexTooLong;
            }
            ++fed_;
            message_.push_back(b);
            return Fault::None;
        }
        if (message_.empty()) {
            if (runningStatus_ == 0) {
                return Fault::StrayData;
            }
            begunAt_ = fed_;
            message_.push_back(runningStatus_);
        }
        ++fed_;
        message_.push_back(b);
        if (message_.size() == std::size_t(dataLength(message_[0])) + 1) {
            sink(message_.data(), message_.size());
            message_.clear();
        }
        return Fault::None;
    }
    if (inSysex) {
        // F7 ends it; any other status ends it too, the F7 put in for it.
        message_.push_back(0xF7);
        sink(message_.data(), message_.size());
        message_.clear();
        if (b == 0xF7) {
            ++fed_;
            return Fault::None;
        }
    } else if (!message_.empty()) {
        return Fault::CutShort;
    }
    if (b == 0xF7) {
        return Fault::StrayData;
    }
    runningStatus_ = b < 0xF0 ? b : 0;
    start(b, sink);
    return Fault::None;
}

Framer::Fault Framer::feed(const std::uint8_t *data, std::size_t length, const Sink &sink, std::size_t *taken)
{
    std::size_t i = 0;
    Fault fault = Fault::None;
    for (; i < length; ++i) {
        fault = put(data[i], sink);
        if (fault != Fault::None) {
            break;
        }
    }
    *taken = i;
    return fault;
}

const char *faultText(Framer::Fault fault)
{
    switch (fault) {
    case Framer::Fault::StrayData:
        return "a data byte with no status byte before it";
    case Framer::Fault::CutShort:
        return "a message cut short by the next status byte";
    case Framer::Fault::SysexTooLong:
        return "a SysEx longer than the port carries";
    default:
        return "no fault";
    }
}

std::string noteName(int note)
{
    static const char *const names[12] = {"C", "C#", "D", "D#", "E", "F", "F#", "G", "G#", "A", "A#", "B"};
    if (note < 0 || note > 127) {
        return "?";
    }
    return std::string(names[note % 12]) + std::to_string(note / 12 - 1);
}

std::string controllerName(int controller)
{
    switch (controller) {
    case 0:
        return "Bank Select";
    case 1:
        return "Modulation";
    case 2:
        return "Breath";
    case 4:
        return "Foot";
    case 5:
        return "Portamento Time";
    case 6:
        return "Data Entry";
    case 7:
        return "Volume";
    case 8:
        return "Balance";
    case 10:
        return "Pan";
    case 11:
        return "Expression";
    case 32:
        return "Bank Select LSB";
    case 64:
        return "Sustain Pedal";
    case 65:
        return "Portamento";
    case 66:
        return "Sostenuto";
    case 67:
        return "Soft Pedal";
    case 71:
        return "Resonance";
    case 72:
        return "Release Time";
    case 73:
        return "Attack Time";
    case 74:
        return "Brightness";
    case 91:
        return "Reverb";
    case 93:
        return "Chorus";
    case 98:
        return "NRPN LSB";
    case 99:
        return "NRPN MSB";
    case 100:
        return "RPN LSB";
    case 101:
        return "RPN MSB";
    case 120:
        return "All Sound Off";
    case 121:
        return "Reset All Controllers";
    case 122:
        return "Local Control";
    case 123:
        return "All Notes Off";
    case 124:
        return "Omni Off";
    case 125:
        return "Omni On";
    case 126:
        return "Mono On";
    case 127:
        return "Poly On";
    default:
        return "";
    }
}

std::string hex(const std::uint8_t *data, std::size_t length, std::size_t max)
{
    std::string out;
    char buf[4];
    for (std::size_t i = 0; i < length && i < max; ++i) {
        std::snprintf(buf, sizeof buf, "%02X", data[i]);
        if (i != 0) {
            out.push_back(' ');
        }
        out += buf;
    }
    if (length > max) {
        out += " ...";
    }
    return out;
}

bool parseHex(const std::string &text, std::vector<std::uint8_t> *bytes)
{
    std::vector<std::uint8_t> out;
    std::size_t i = 0;
    auto isSep = [](char c) { return c == ' ' || c == ',' || c == '\t' || c == '\n' || c == ':'; };
    while (i < text.size()) {
        if (isSep(text[i])) {
            ++i;
            continue;
        }
        if (text[i] == '0' && i + 1 < text.size() && (text[i + 1] == 'x' || text[i + 1] == 'X')) {
            i += 2;
        }
        // Bytes are always two digits, so "903C64" splits unambiguously.
        if (i + 1 >= text.size() || !std::isxdigit(static_cast<unsigned char>(text[i])) ||
            !std::isxdigit(static_cast<unsigned char>(text[i + 1]))) {
            return false;
        }
        out.push_back(std::uint8_t(std::stoi(text.substr(i, 2), nullptr, 16)));
        i += 2;
    }
    if (out.empty()) {
        return false;
    }
    *bytes = std::move(out);
    return true;
}

std::string describe(const std::uint8_t *m, std::size_t length, std::size_t fullLength)
{
    if (length == 0) {
        return "(empty)";
    }
    char line[160];
    std::uint8_t status = m[0];
    int channel = (status & 0x0F) + 1;
    auto d = [&](std::size_t i) { return i < length ? int(m[i]) : -1; };
    if (status < 0x80) {
        return "Data without status  " + hex(m, length);
    }
    if (status < 0xF0 && length < std::size_t(1 + dataLength(status))) {
        return "Incomplete  " + hex(m, length);
    }
    switch (status & 0xF0) {
    case 0x80:
        std::snprintf(line, sizeof line, "Note Off            ch %2d  %-4s (%3d)  velocity %d", channel,
                      noteName(d(1)).c_str(), d(1), d(2));
        return line;
    case 0x90:
        std::snprintf(line, sizeof line, "Note On             ch %2d  %-4s (%3d)  velocity %d", channel,
                      noteName(d(1)).c_str(), d(1), d(2));
        return line;
    case 0xA0:
        std::snprintf(line, sizeof line, "Poly Aftertouch     ch %2d  %-4s (%3d)  pressure %d", channel,
                      noteName(d(1)).c_str(), d(1), d(2));
        return line;
    case 0xB0: {
        std::string name = controllerName(d(1));
        std::snprintf(line, sizeof line, "Control Change      ch %2d  %s%scontroller %d = %d", channel, name.c_str(),
                      name.empty() ? "" : ", ", d(1), d(2));
        return line;
    }
    case 0xC0:
        std::snprintf(line, sizeof line, "Program Change      ch %2d  program %d", channel, d(1));
        return line;
    case 0xD0:
        std::snprintf(line, sizeof line, "Channel Aftertouch  ch %2d  pressure %d", channel, d(1));
        return line;
    case 0xE0:
        std::snprintf(line, sizeof line, "Pitch Bend          ch %2d  %+d", channel, (d(1) | d(2) << 7) - 8192);
        return line;
    default:
        break;
    }
    switch (status) {
    case 0xF0: {
        std::size_t total = fullLength > length ? fullLength : length;
        bool terminated = m[length - 1] == 0xF7 && fullLength <= length;
        std::snprintf(line, sizeof line, "SysEx               %zu bytes%s  ", total,
                      terminated ? "" : " (unterminated)");
        return line + hex(m, length, 8);
    }
    case 0xF1:
        std::snprintf(line, sizeof line, "MTC Quarter Frame   piece %d value %d", d(1) >> 4, d(1) & 0x0F);
        return line;
    case 0xF2:
        std::snprintf(line, sizeof line, "Song Position       %d beats", d(1) | d(2) << 7);
        return line;
    case 0xF3:
        std::snprintf(line, sizeof line, "Song Select         song %d", d(1));
        return line;
    case 0xF6:
        return "Tune Request";
    case 0xF8:
        return "Clock";
    case 0xFA:
        return "Start";
    case 0xFB:
        return "Continue";
    case 0xFC:
        return "Stop";
    case 0xFE:
        return "Active Sensing";
    case 0xFF:
        return "Reset";
    default:
        return "Undefined           " + hex(m, length);
    }
}

} // namespace ambrel::midi
