#include "smf.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>

#include "midi.h"

namespace ambrel::midi {
namespace {

struct Cursor {
    const std::uint8_t *data;
    std::size_t length;
    std::size_t pos = 0;

    bool has(std::size_t n) const { return n <= length - pos; }
    std::uint32_t be(int bytes)
    {
        std::uint32_t v = 0;
        for (int i = 0; i < bytes; ++i) {
            v = v << 8 | data[pos++];
        }
        return v;
    }
    // A variable-length quantity: at most four bytes, 28 bits.
    bool vlq(std::uint32_t *out)
    {
        std::uint32_t v = 0;
        for (int i = 0; i < 4; ++i) {
            if (!has(1)) {
                return false;
            }
            std::uint8_t b = data[pos++];
            v = v << 7 | (b & 0x7F);
            if ((b & 0x80) == 0) {
                *out = v;
                return true;
            }
        }
        return false;
    }
};

struct Tempo {
    std::uint64_t tick;
    std::uint32_t microsPerQuarter;
};

std::string where(int track, std::size_t offset, const char *what)
{
    char buf[96];
    std::snprintf(buf, sizeof buf, "track %d: %s at offset %zu", track, what, offset);
    return buf;
}

// Reads one MTrk body starting at absolute tick `start`. Returns the track's
// end tick through *end.
bool readTrack(Cursor c, int track, std::uint64_t start, std::size_t base, std::vector<SmfEvent> *events,
               std::vector<Tempo> *tempos, std::uint64_t *end, std::string *error)
{
    std::uint64_t tick = start;
    std::uint8_t running = 0;
    while (c.pos < c.length) {
        std::size_t at = base + c.pos;
        std::uint32_t delta = 0;
        if (!c.vlq(&delta)) {
            *error = where(track, at, "bad or truncated delta time");
            return false;
        }
        tick += delta;
        if (!c.has(1)) {
            *error = where(track, at, "truncated event");
            return false;
        }
        std::uint8_t status = c.data[c.pos];
        if (status == 0xFF) {
            ++c.pos;
            std::uint32_t len = 0;
            if (!c.has(1)) {
                *error = where(track, at, "truncated meta event");
                return false;
            }
            std::uint8_t type = c.data[c.pos++];
            if (!c.vlq(&len) || !c.has(len)) {
                *error = where(track, at, "truncated meta event");
                return false;
            }
            if (type == 0x51 && len == 3) {
                std::uint32_t t = std::uint32_t(c.data[c.pos]) << 16 | std::uint32_t(c.data[c.pos + 1]) << 8 |
                                  c.data[c.pos + 2];
                if (t != 0) {
                    tempos->push_back({tick, t});
                }
            }
            c.pos += len;
            if (type == 0x2F) {
                break; // end of track: whatever follows is not part of it
            }
            continue;
        }
        if (status == 0xF0 || status == 0xF7) {
            ++c.pos;
            std::uint32_t len = 0;
            if (!c.vlq(&len) || !c.has(len)) {
                *error = where(track, at, "truncated SysEx event");
                return false;
            }
            SmfEvent e;
            e.tick = tick;
            e.track = track;
            // F0 events lack their F0 in the file; F7 events are sent as they are.
            // Sized once and copied: gcc 12 at -O2 misreads a push_back followed
            // by a range insert as an overflow (-Wstringop-overflow).
            const std::size_t prefix = status == 0xF0 ? 1 : 0;
            e.bytes.resize(prefix + len);
            if (prefix != 0) {
                e.bytes[0] = 0xF0;
            }
            if (len != 0) {
                std::memcpy(e.bytes.data() + prefix, c.data + c.pos, len);
            }
            c.pos += len;
            running = 0;
            if (!e.bytes.empty()) {
                events->push_back(std::move(e));
            }
            continue;
        }
        if (status >= 0x80) {
            if (status >= 0xF0) {
                *error = where(track, at, "system message not allowed in a file");
                return false;
            }
            running = status;
            ++c.pos;
        } else if (running == 0) {
            *error = where(track, at, "data byte without a status");
            return false;
        }
        int n = dataLength(running);
        if (!c.has(std::size_t(n))) {
            *error = where(track, at, "truncated channel message");
            return false;
        }
        SmfEvent e;
        e.tick = tick;
        e.track = track;
        e.bytes.push_back(running);
        for (int i = 0; i < n; ++i) {
            std::uint8_t b = c.data[c.pos++];
            if (b >= 0x80) {
                *error = where(track, at, "status byte inside a channel message");
                return false;
            }
            e.bytes.push_back(b);
        }
        events->push_back(std::move(e));
    }
    *end = tick;
    return true;
}

} // namespace

bool parseSmf(const std::uint8_t *data, std::size_t length, Smf *smf, std::string *error)
{
    *smf = Smf();
    Cursor c{data, length};
    if (!c.has(14) || std::string(reinterpret_cast<const char *>(data), 4) != "MThd") {
        *error = "not a Standard MIDI File (no MThd header)";
        return false;
    }
    c.pos = 4;
    std::uint32_t headerLength = c.be(4);
    if (headerLength < 6 || !c.has(headerLength)) {
        *error = "bad MThd header length";
        return false;
    }
    Smf out;
    out.format = int(c.be(2));
    int declaredTracks = int(c.be(2));
    out.division = int(c.be(2));
    c.pos = 8 + headerLength;
    if (out.format > 2) {
        *error = "unknown format " + std::to_string(out.format);
        return false;
    }
    if (out.division == 0) {
        *error = "division of 0 ticks";
        return false;
    }
    double secondsPerTick = 0; // fixed for SMPTE divisions
    if ((out.division & 0x8000) != 0) {
        int fps = -static_cast<std::int8_t>(out.division >> 8);
        int ticksPerFrame = out.division & 0xFF;
        if (fps <= 0 || ticksPerFrame == 0) {
            *error = "bad SMPTE division";
            return false;
        }
        secondsPerTick = 1.0 / ((fps == 29 ? 29.97 : double(fps)) * ticksPerFrame);
    }

    std::vector<SmfEvent> events;
    std::vector<Tempo> tempos;
    std::uint64_t start = 0, lastEnd = 0;
    int track = 0;
    while (c.pos < c.length) {
        if (!c.has(8)) {
            break; // trailing bytes shorter than a chunk header: ignored
        }
        std::string type(reinterpret_cast<const char *>(c.data + c.pos), 4);
        c.pos += 4;
        std::uint32_t chunkLength = c.be(4);
        if (!c.has(chunkLength)) {
            *error = "chunk " + std::to_string(track) + " (" + type + ") runs past the end of the file";
            return false;
        }
        if (type == "MTrk") {
            std::uint64_t end = 0;
            Cursor body{c.data + c.pos, chunkLength};
            if (!readTrack(body, track, start, c.pos, &events, &tempos, &end, error)) {
                return false;
            }
            lastEnd = std::max(lastEnd, end);
            if (out.format == 2) {
                start = end; // independent patterns play one after another
            }
            ++track;
        }
        c.pos += chunkLength; // other chunk types are skipped
    }
    if (track == 0) {
        *error = "no MTrk chunk";
        return false;
    }
    (void)declaredTracks; // files that miscount their tracks are common; what is there counts
    out.trackCount = track;

    std::stable_sort(events.begin(), events.end(), [](const SmfEvent &a, const SmfEvent &b) {
        return a.tick != b.tick ? a.tick < b.tick : a.track < b.track;
    });
    std::stable_sort(tempos.begin(), tempos.end(), [](const Tempo &a, const Tempo &b) { return a.tick < b.tick; });

    int ppq = out.division & 0x7FFF;
    auto toSeconds = [&](std::uint64_t tick, std::size_t *tempoIndex, std::uint64_t *baseTick, double *baseSeconds,
                         std::uint32_t *tempo) {
        if (secondsPerTick > 0) {
            return double(tick) * secondsPerTick;
        }
        while (*tempoIndex < tempos.size() && tempos[*tempoIndex].tick <= tick) {
            *baseSeconds += double(tempos[*tempoIndex].tick - *baseTick) * *tempo / 1e6 / ppq;
            *baseTick = tempos[*tempoIndex].tick;
            *tempo = tempos[*tempoIndex].microsPerQuarter;
            ++*tempoIndex;
        }
        return *baseSeconds + double(tick - *baseTick) * *tempo / 1e6 / ppq;
    };
    std::size_t tempoIndex = 0;
    std::uint64_t baseTick = 0;
    double baseSeconds = 0;
    std::uint32_t tempo = 500000; // 120 beats per minute until a tempo event says otherwise
    for (SmfEvent &e : events) {
        e.seconds = toSeconds(e.tick, &tempoIndex, &baseTick, &baseSeconds, &tempo);
    }
    out.duration = toSeconds(lastEnd, &tempoIndex, &baseTick, &baseSeconds, &tempo);
    out.events = std::move(events);
    *smf = std::move(out);
    return true;
}

bool readSmfFile(const std::string &path, Smf *smf, std::string *error)
{
    int fd = path == "-" ? fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0) : open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        *error = std::strerror(errno);
        return false;
    }
    // Regular files, and pipes (a song fed by another program); no device
    // or directory.
    struct stat st;
    if (fstat(fd, &st) != 0 || (!S_ISREG(st.st_mode) && !S_ISFIFO(st.st_mode))) {
        *error = S_ISDIR(st.st_mode) ? "is a directory" : "not a regular file";
        close(fd);
        return false;
    }
    if (st.st_size > off_t(kMaxSmfBytes)) {
        *error = "larger than " + std::to_string(kMaxSmfBytes >> 20) + " MiB: not a song this plays";
        close(fd);
        return false;
    }
    if (!S_ISREG(st.st_mode)) {
        fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK); // a pipe is waited for
    }
    std::vector<std::uint8_t> data(S_ISREG(st.st_mode) ? size_t(st.st_size) : kMaxSmfBytes + 1);
    size_t got = 0;
    while (got < data.size()) {
        ssize_t n = read(fd, data.data() + got, data.size() - got);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        got += size_t(n);
        // The header first: anything else is refused before it is read.
        if (got >= 8 && (std::memcmp(data.data(), "MThd", 4) != 0)) {
            break;
        }
    }
    close(fd);
    if (got > kMaxSmfBytes) {
        *error = "larger than " + std::to_string(kMaxSmfBytes >> 20) + " MiB: not a song this plays";
        return false;
    }
    data.resize(got);
    if (got < 4 || std::memcmp(data.data(), "MThd", 4) != 0) {
        *error = "not a Standard MIDI File (it does not begin with MThd)";
        return false;
    }
    return parseSmf(data.data(), data.size(), smf, error);
}

} // namespace ambrel::midi
