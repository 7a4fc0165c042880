// The `ambrel` command: hold a port and watch what is played to it, play
// bytes or Standard MIDI Files into a port, monitor what a port's owner
// sends, and list the ports. Everything goes through ambreld's mount; the
// port owner's side goes through libambrel.
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "ambrel/ambrel.hpp"
#include "ambrel/mount.h"
#include "midi/midi.h"
#include "midi/smf.h"
#include "usage_ambrel.h"

namespace {

constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;
constexpr int kExitNotRunning = 3;
constexpr int kExitInterrupted = 130;

// What the driver leaves out of a port's name.
constexpr const char *kFilteredCharacters = "\\/<>\":|?*";

std::atomic<bool> gStop{false};

void onSignal(int)
{
    gStop = true;
}

// SIGINT/SIGTERM interrupt blocking calls (no SA_RESTART), so a waiting read
// returns at once and the port closes cleanly.
void catchSignals()
{
    struct sigaction sa = {};
    sa.sa_handler = onSignal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);
}

int fail(const std::string &message, int code = kExitFailure)
{
    std::fprintf(stderr, "ambrel: %s\n", message.c_str());
    return code;
}

int usage(const std::string &message, const std::string &command = "")
{
    std::fprintf(stderr, "ambrel: %s\nTry 'ambrel %s--help'.\n", message.c_str(),
                 command.empty() ? "" : (command + " ").c_str());
    return kExitUsage;
}

const char *commandHelp(const std::string &command)
{
    for (const CommandHelp &h : kAmbrelCommandHelp) {
        if (command == h.name) {
            return h.text;
        }
    }
    return nullptr;
}

double now()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) / 1e9;
}

bool parseNumber(const std::string &text, unsigned long long max, unsigned long long *out)
{
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos || text.size() > 19) {
        return false;
    }
    unsigned long long v = std::stoull(text);
    if (v > max) {
        return false;
    }
    *out = v;
    return true;
}

struct Args {
    std::vector<std::string> positional;
    std::map<std::string, std::string> values; // --opt VALUE
    std::vector<std::string> flags;            // --flag
    bool has(const std::string &f) const { return std::find(flags.begin(), flags.end(), f) != flags.end(); }
};

// Splits ARGS by the options a command knows; false (with a message) on an
// unknown option or a missing value. "-" alone is an argument.
bool parseArgs(const std::vector<std::string> &in, const std::vector<std::string> &withValue,
               const std::vector<std::string> &bare, Args *out, std::string *error)
{
    for (size_t i = 0; i < in.size(); ++i) {
        const std::string &a = in[i];
        if (a.size() > 2 && a.compare(0, 2, "--") == 0) {
            std::string name = a, value;
            size_t eq = a.find('=');
            bool inlineValue = eq != std::string::npos;
            if (inlineValue) {
                name = a.substr(0, eq);
                value = a.substr(eq + 1);
            }
            if (std::find(withValue.begin(), withValue.end(), name) != withValue.end()) {
                if (!inlineValue) {
                    if (i + 1 >= in.size()) {
                        *error = "option " + name + " needs a value";
                        return false;
                    }
                    value = in[++i];
                }
                out->values[name] = value;
            } else if (!inlineValue && std::find(bare.begin(), bare.end(), name) != bare.end()) {
                out->flags.push_back(name);
            } else {
                *error = "unknown option " + a;
                return false;
            }
        } else {
            out->positional.push_back(a);
        }
    }
    return true;
}

struct Context {
    std::string mount;
};

bool daemonRunning(const Context &ctx)
{
    struct stat st;
    return stat((ctx.mount + "/" AMBREL_PORTS_DIR).c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

int notRunning(const Context &ctx)
{
    return fail("ambreld is not running at " + ctx.mount + " (start it with ambreld, or set --mount)",
                kExitNotRunning);
}

// One message for every way a stopped ambreld shows itself to a process
// that had something open ("Input/output error", "Transport endpoint is not
// connected", "Bad file descriptor", "No such device"), and one for a port
// whose owner closed it.
int ioFailure(const Context &ctx, const std::string &port, const std::string &what, int error)
{
    if (error == ESHUTDOWN) {
        return fail("port \"" + port + "\" was closed by its owner");
    }
    if (error == ENODEV || error == ENOTCONN || error == ECONNABORTED || !daemonRunning(ctx)) {
        return fail("ambreld stopped", kExitNotRunning);
    }
    return fail(what + ": " + std::strerror(error));
}

std::map<std::string, std::string> readInfo(const std::string &path)
{
    std::map<std::string, std::string> info;
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
        size_t colon = line.find(':');
        if (colon != std::string::npos) {
            std::string value = line.substr(colon + 1);
            value.erase(0, value.find_first_not_of(' '));
            info.emplace(line.substr(0, colon), value);
        }
    }
    return info;
}

struct PortEntry {
    std::string dir; // below <mount>/ports
    std::map<std::string, std::string> info;
    const std::string &name() const { return info.at("name"); }
};

std::vector<PortEntry> listPorts(const Context &ctx)
{
    std::vector<PortEntry> ports;
    std::string root = ctx.mount + "/" AMBREL_PORTS_DIR;
    DIR *d = opendir(root.c_str());
    if (d == nullptr) {
        return ports;
    }
    while (dirent *e = readdir(d)) {
        std::string entry = e->d_name;
        if (entry != "." && entry != "..") {
            auto info = readInfo(root + "/" + entry + "/" AMBREL_INFO_FILE);
            if (info.count("name") != 0) {
                ports.push_back(PortEntry{root + "/" + entry, std::move(info)});
            }
        }
    }
    closedir(d);
    std::sort(ports.begin(), ports.end(), [](const PortEntry &x, const PortEntry &y) { return x.name() < y.name(); });
    return ports;
}

std::string driverName(const std::string &name)
{
    std::string out;
    for (char c : name) {
        if (std::strchr(kFilteredCharacters, c) == nullptr) {
            out.push_back(c);
        }
    }
    return out;
}

// A port by the name the driver makes of `name` (as `hold` created it), else
// by the one port whose name starts so.
bool findPort(const Context &ctx, const std::string &name, PortEntry *port, std::string *error)
{
    std::string wanted = driverName(name);
    std::vector<PortEntry> ports = listPorts(ctx);
    std::vector<const PortEntry *> starting;
    for (const PortEntry &p : ports) {
        if (p.name() == wanted) {
            *port = p;
            return true;
        }
        if (!wanted.empty() && p.name().compare(0, wanted.size(), wanted) == 0) {
            starting.push_back(&p);
        }
    }
    if (starting.size() == 1) {
        *port = *starting[0];
        return true;
    }
    if (starting.empty()) {
        *error = "no port named \"" + name + "\"";
        if (wanted != name) {
            *error += " (nor \"" + wanted + "\", as the driver names it)";
        }
    } else {
        *error = "\"" + name + "\" could be any of";
        for (const PortEntry *p : starting) {
            *error += " \"" + p->name() + "\"";
        }
    }
    return false;
}

std::uint32_t sysexSizeOf(const PortEntry &port)
{
    auto it = port.info.find("sysex-size");
    unsigned long long v = 0;
    return it != port.info.end() && parseNumber(it->second, 0xFFFFFFFFull, &v) ? std::uint32_t(v)
                                                                               : AMBREL_MAX_SYSEX_SIZE;
}

int openPortFile(const Context &ctx, const PortEntry &port, const char *file, int flags, int *fd)
{
    std::string path = port.dir + "/" + file;
    *fd = open(path.c_str(), flags | O_CLOEXEC);
    if (*fd < 0) {
        if (errno == ENOENT && daemonRunning(ctx)) {
            return fail(std::string("port \"") + port.name() + "\" has no " +
                        (std::strcmp(file, AMBREL_OUT_FILE) == 0 ? "render side (nobody can play to it)"
                                                                  : "capture side (nobody can record from it)"));
        }
        return ioFailure(ctx, port.name(), "cannot open " + path, errno);
    }
    return kExitOk;
}

// Finds the port and opens one of its files; a failure has been said.
int openPort(const Context &ctx, const std::string &name, const char *file, int flags, PortEntry *port, int *fd)
{
    if (!daemonRunning(ctx)) {
        return notRunning(ctx);
    }
    std::string error;
    if (!findPort(ctx, name, port, &error)) {
        return fail(error);
    }
    return openPortFile(ctx, *port, file, flags, fd);
}

// Writes all of `data`, retrying after a signal that did not ask to stop;
// the errno of a failure.
int writeAll(int fd, const std::uint8_t *data, size_t length)
{
    while (length > 0) {
        ssize_t n = write(fd, data, length);
        if (n < 0) {
            if (errno == EINTR && !gStop) {
                continue;
            }
            return errno;
        }
        data += n;
        length -= size_t(n);
    }
    return 0;
}

// A port's writer closes its file: close() waits until the bytes are in the
// port and says when they could not all go.
int closeWriter(const Context &ctx, const std::string &port, int fd, const char *what)
{
    if (close(fd) != 0 && errno != EINTR) {
        return ioFailure(ctx, port, what, errno);
    }
    return kExitOk;
}

// Checks bytes before anything is sent, as the port would cut them; the
// reason when the port would drop some.
bool checkMidi(const std::vector<std::uint8_t> &bytes, std::uint32_t sysexSize, std::string *error)
{
    ambrel::midi::Framer framer(sysexSize);
    size_t taken = 0;
    auto fault = framer.feed(bytes.data(), bytes.size(), [](const std::uint8_t *, size_t) {}, &taken);
    if (fault != ambrel::midi::Framer::Fault::None) {
        *error = std::string(ambrel::midi::faultText(fault)) + " at byte " + std::to_string(taken + 1);
        if (fault == ambrel::midi::Framer::Fault::SysexTooLong) {
            *error += " (the port carries " + std::to_string(sysexSize) + " bytes)";
        }
        return false;
    }
    if (framer.begun() > 0) {
        *error = "the last message is cut short (" + std::to_string(framer.begun()) + " bytes)";
        return false;
    }
    return true;
}

class Printer {
public:
    explicit Printer(bool raw) : raw_(raw), start_(now()) {}
    void print(const std::uint8_t *m, size_t n, size_t full)
    {
        std::string text = raw_ ? ambrel::midi::hex(m, n, n) : ambrel::midi::describe(m, n, full);
        std::printf("%10.3f  %s\n", now() - start_, text.c_str());
        std::fflush(stdout);
    }

private:
    bool raw_;
    double start_;
};

int cmdHold(const Context &ctx, const std::vector<std::string> &argv)
{
    Args a;
    std::string error;
    if (!parseArgs(argv, {"--sysex", "--manufacturer", "--product", "--count"},
                   {"--read", "--write", "--thru", "--raw"}, &a, &error)) {
        return usage(error, "hold");
    }
    if (a.positional.size() != 1) {
        return usage("hold needs exactly one port name", "hold");
    }
    ambrel::Options o;
    o.root = ctx.mount;
    if (a.has("--read") && !a.has("--write")) {
        o.access = AMBREL_READ;
    } else if (a.has("--write") && !a.has("--read")) {
        o.access = AMBREL_WRITE;
    }
    unsigned long long value = 0;
    if (a.values.count("--sysex")) {
        if (!parseNumber(a.values["--sysex"], 0xFFFFFFFFull, &value)) {
            return usage("--sysex needs a size in bytes", "hold");
        }
        if (value < AMBREL_MIN_SYSEX_SIZE || value > AMBREL_MAX_SYSEX_SIZE) {
            return usage("--sysex " + std::to_string(value) + " is outside " + std::to_string(AMBREL_MIN_SYSEX_SIZE) +
                             ".." + std::to_string(AMBREL_MAX_SYSEX_SIZE),
                         "hold");
        }
        o.sysexSize = std::uint32_t(value);
    }
    unsigned long long count = 0;
    if (a.values.count("--count") && (!parseNumber(a.values["--count"], ~0ull, &count) || count == 0)) {
        return usage("--count needs a positive number", "hold");
    }
    try {
        if (a.values.count("--manufacturer")) {
            o.manufacturer = ambrel::parseGuid(a.values["--manufacturer"]);
        }
        if (a.values.count("--product")) {
            o.product = ambrel::parseGuid(a.values["--product"]);
        }
    } catch (const ambrel::Error &e) {
        return usage(e.what(), "hold");
    }
    bool thru = a.has("--thru");
    if (thru && o.access != (AMBREL_READ | AMBREL_WRITE)) {
        return usage("--thru needs both directions", "hold");
    }
    const std::string &asked = a.positional[0];
    catchSignals();
    ambrel::Port port;
    try {
        port = ambrel::Port(asked, o);
    } catch (const ambrel::Error &e) {
        return fail(e.what(), e.code() == AMBREL_E_NODRIVER ? kExitNotRunning : kExitFailure);
    }
    // The driver may have left characters out: the name programs see is
    // the one to say.
    struct ambrel_port_name real = {};
    std::string name = asked;
    if (ioctl(int(ambrel_native_handle(port.get())), AMBREL_IOC_PORT_NAME, &real) == 0) {
        name = real.name;
    }
    std::fprintf(stderr, "ambrel: port \"%s\" is open (%s); Ctrl-C closes it\n", name.c_str(),
                 o.access == AMBREL_READ    ? "programs play to it"
                 : o.access == AMBREL_WRITE ? "programs record from it"
                                            : "programs play to it and record from it");
    if (name != asked) {
        std::fprintf(stderr, "ambrel: (port names leave out the characters %s)\n", kFilteredCharacters);
    }
    if ((o.access & AMBREL_READ) == 0) {
        // Nothing to show: hold the port until told to stop.
        while (!gStop) {
            pause();
        }
        return kExitOk;
    }
    Printer printer(a.has("--raw"));
    ambrel::midi::Splitter splitter;
    std::vector<std::uint8_t> buffer(1 << 20);
    unsigned long long seen = 0;
    while (!gStop && (count == 0 || seen < count)) {
        long n = ambrel_read(port.get(), buffer.data(), buffer.size(), 500);
        if (n == AMBREL_E_TIMEOUT || n == AMBREL_E_INTERRUPTED) {
            continue;
        }
        if (n < 0) {
            return ioFailure(ctx, name, std::string("read: ") + ambrel_strerror(int(n)), ambrel_last_os_error());
        }
        if (thru) {
            long w = ambrel_write(port.get(), buffer.data(), size_t(n));
            if (w < 0) {
                return ioFailure(ctx, name, std::string("write: ") + ambrel_strerror(int(w)), ambrel_last_os_error());
            }
        }
        splitter.feed(buffer.data(), size_t(n), [&](const std::uint8_t *m, size_t len) {
            ++seen;
            printer.print(m, len, m[0] == 0xF0 ? splitter.sysexLength() : 0);
        });
    }
    return kExitOk;
}

// All of standard input, up to `limit` bytes; false when it holds more.
bool readStdin(std::vector<std::uint8_t> *bytes, size_t limit, std::string *error)
{
    std::vector<std::uint8_t> chunk(65536);
    for (;;) {
        ssize_t n = read(STDIN_FILENO, chunk.data(), chunk.size());
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            *error = std::string("reading standard input: ") + std::strerror(errno);
            return false;
        }
        if (n == 0) {
            return true;
        }
        if (bytes->size() + size_t(n) > limit) {
            *error = "standard input holds more than " + std::to_string(limit) + " bytes";
            return false;
        }
        bytes->insert(bytes->end(), chunk.begin(), chunk.begin() + n);
    }
}

int cmdSend(const Context &ctx, const std::vector<std::string> &argv)
{
    if (argv.size() < 2) {
        return usage("send needs a port name and bytes", "send");
    }
    std::vector<std::uint8_t> bytes;
    std::string error;
    if (argv.size() == 2 && argv[1] == "-") {
        if (!readStdin(&bytes, 64u << 20, &error)) {
            return fail(error);
        }
        if (bytes.empty()) {
            return fail("nothing to send on standard input");
        }
    } else {
        std::string text;
        for (size_t i = 1; i < argv.size(); ++i) {
            text += argv[i] + " ";
        }
        if (!ambrel::midi::parseHex(text, &bytes)) {
            return usage("bytes must be hexadecimal pairs, e.g. \"90 3C 64\"", "send");
        }
    }
    if (!daemonRunning(ctx)) {
        return notRunning(ctx);
    }
    PortEntry port;
    if (!findPort(ctx, argv[0], &port, &error)) {
        return fail(error);
    }
    if (!checkMidi(bytes, sysexSizeOf(port), &error)) {
        return fail("nothing sent: " + error);
    }
    int fd = -1;
    if (int rc = openPortFile(ctx, port, AMBREL_OUT_FILE, O_WRONLY, &fd); rc != kExitOk) {
        return rc;
    }
    if (int e = writeAll(fd, bytes.data(), bytes.size())) {
        close(fd);
        return ioFailure(ctx, port.name(), "send", e);
    }
    return closeWriter(ctx, port.name(), fd, "send");
}

void drawProgress(const std::string &file, double t, double total)
{
    constexpr int width = 30;
    double f = total > 0 ? std::min(1.0, t / total) : 1.0;
    int filled = int(f * width + 0.5);
    std::string bar(size_t(filled), '#');
    bar.append(size_t(width - filled), '-');
    std::fprintf(stderr, "\r%s [%s] %3d%%  %d:%02d / %d:%02d", file.c_str(), bar.c_str(), int(f * 100), int(t) / 60,
                 int(t) % 60, int(total) / 60, int(total) % 60);
    std::fflush(stderr);
}

// A file to play, or "-": read and checked whole before anything plays.
bool loadSong(const std::string &path, std::uint32_t sysexSize, ambrel::midi::Smf *smf, std::string *error)
{
    if (!ambrel::midi::readSmfFile(path, smf, error)) {
        *error = (path == "-" ? "standard input" : path) + ": " + *error;
        return false;
    }
    for (const ambrel::midi::SmfEvent &e : smf->events) {
        if (e.bytes.size() > sysexSize) {
            *error = (path == "-" ? "standard input" : path) + ": a SysEx of " + std::to_string(e.bytes.size()) +
                     " bytes, longer than the port carries (" + std::to_string(sysexSize) + ")";
            return false;
        }
    }
    return true;
}

int cmdPlay(const Context &ctx, const std::vector<std::string> &argv)
{
    Args a;
    std::string error;
    if (!parseArgs(argv, {"--speed"}, {"--no-progress"}, &a, &error)) {
        return usage(error, "play");
    }
    if (a.positional.size() < 2) {
        return usage("play needs a port name and at least one file", "play");
    }
    if (std::count(a.positional.begin() + 1, a.positional.end(), "-") > 1) {
        return usage("standard input (\"-\") can be played once", "play");
    }
    double speed = 1;
    if (a.values.count("--speed")) {
        char *end = nullptr;
        speed = std::strtod(a.values["--speed"].c_str(), &end);
        if (end == nullptr || *end != '\0' || !(speed > 0) || !std::isfinite(speed)) {
            return usage("--speed needs a positive factor", "play");
        }
    }
    if (!daemonRunning(ctx)) {
        return notRunning(ctx);
    }
    PortEntry port;
    if (!findPort(ctx, a.positional[0], &port, &error)) {
        return fail(error);
    }
    std::vector<ambrel::midi::Smf> songs(a.positional.size() - 1);
    for (size_t i = 0; i < songs.size(); ++i) {
        if (!loadSong(a.positional[i + 1], sysexSizeOf(port), &songs[i], &error)) {
            return fail(error);
        }
    }
    int fd = -1;
    if (int rc = openPortFile(ctx, port, AMBREL_OUT_FILE, O_WRONLY, &fd); rc != kExitOk) {
        return rc;
    }
    catchSignals();
    bool progress = !a.has("--no-progress") && isatty(STDERR_FILENO);
    for (size_t i = 0; i < songs.size() && !gStop; ++i) {
        const ambrel::midi::Smf &smf = songs[i];
        std::string label = a.positional[i + 1] == "-" ? "(stdin)" : a.positional[i + 1];
        double total = smf.duration / speed;
        double startSeconds = now();
        double lastDrawn = -1;
        for (const ambrel::midi::SmfEvent &e : smf.events) {
            double due = startSeconds + e.seconds / speed;
            timespec ts;
            ts.tv_sec = time_t(due);
            ts.tv_nsec = long((due - double(ts.tv_sec)) * 1e9);
            while (!gStop && clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, nullptr) == EINTR) {
            }
            if (gStop) {
                break;
            }
            if (int err = writeAll(fd, e.bytes.data(), e.bytes.size())) {
                if (progress) {
                    std::fputc('\n', stderr);
                }
                close(fd);
                return ioFailure(ctx, port.name(), "play", err);
            }
            double t = e.seconds / speed;
            if (progress && t - lastDrawn >= 0.1) {
                drawProgress(label, t, total);
                lastDrawn = t;
            }
        }
        if (progress) {
            if (!gStop) {
                drawProgress(label, total, total);
            }
            std::fputc('\n', stderr);
        }
    }
    if (gStop) {
        // Leave no note hanging: All Notes Off on every channel.
        gStop = false;
        for (int ch = 0; ch < 16; ++ch) {
            std::uint8_t off[3] = {std::uint8_t(0xB0 | ch), 123, 0};
            writeAll(fd, off, sizeof off);
        }
        close(fd);
        return kExitInterrupted;
    }
    return closeWriter(ctx, port.name(), fd, "play");
}

int cmdMonitor(const Context &ctx, const std::vector<std::string> &argv)
{
    Args a;
    std::string error;
    if (!parseArgs(argv, {"--count", "--timeout"}, {"--raw", "--clock", "--active-sensing"}, &a, &error)) {
        return usage(error, "monitor");
    }
    if (a.positional.size() != 1) {
        return usage("monitor needs exactly one port name", "monitor");
    }
    unsigned long long count = 0;
    if (a.values.count("--count") && (!parseNumber(a.values["--count"], ~0ull, &count) || count == 0)) {
        return usage("--count needs a positive number", "monitor");
    }
    int timeoutMs = -1;
    if (a.values.count("--timeout")) {
        char *end = nullptr;
        double seconds = std::strtod(a.values["--timeout"].c_str(), &end);
        if (end == nullptr || *end != '\0' || !(seconds > 0) || seconds > 86400) {
            return usage("--timeout needs seconds (up to 86400)", "monitor");
        }
        timeoutMs = int(seconds * 1000 + 0.5);
    }
    bool clock = a.has("--clock"), sensing = a.has("--active-sensing");
    PortEntry port;
    int fd = -1;
    if (int rc = openPort(ctx, a.positional[0], AMBREL_IN_FILE, O_RDONLY, &port, &fd); rc != kExitOk) {
        return rc;
    }
    catchSignals();
    Printer printer(a.has("--raw"));
    ambrel::midi::Splitter splitter;
    std::vector<std::uint8_t> buffer((1 << 20) + 64);
    unsigned long long seen = 0;
    int rc = kExitOk;
    while (!gStop && (count == 0 || seen < count)) {
        struct pollfd p = {fd, POLLIN, 0};
        int ready = poll(&p, 1, timeoutMs);
        if (ready == 0) {
            break; // quiet for --timeout: done
        }
        ssize_t n = ready < 0 ? -1 : read(fd, buffer.data(), buffer.size());
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            if (n < 0) {
                rc = ioFailure(ctx, port.name(), "monitor", errno);
            }
            break;
        }
        splitter.feed(buffer.data(), size_t(n), [&](const std::uint8_t *m, size_t len) {
            if ((m[0] == 0xF8 && !clock) || (m[0] == 0xFE && !sensing) || (count != 0 && seen >= count)) {
                return;
            }
            ++seen;
            printer.print(m, len, m[0] == 0xF0 ? splitter.sysexLength() : 0);
        });
    }
    close(fd);
    return rc;
}

std::string jsonString(const std::string &s)
{
    std::string out = "\"";
    for (unsigned char c : s) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += char(c);
        } else if (c < 0x20) {
            char esc[8];
            std::snprintf(esc, sizeof esc, "\\u%04x", c);
            out += esc;
        } else {
            out += char(c);
        }
    }
    return out + "\"";
}

int cmdList(const Context &ctx, const std::vector<std::string> &argv)
{
    Args a;
    std::string error;
    if (!parseArgs(argv, {}, {"--json"}, &a, &error)) {
        return usage(error, "list");
    }
    if (!a.positional.empty()) {
        return usage("list takes no arguments", "list");
    }
    if (!daemonRunning(ctx)) {
        return notRunning(ctx);
    }
    std::vector<PortEntry> ports = listPorts(ctx);
    if (a.has("--json")) {
        std::printf("[");
        const char *separator = "";
        for (PortEntry &p : ports) {
            std::string processes;
            std::istringstream ids(p.info["processes"]);
            for (std::string id; ids >> id;) {
                processes += (processes.empty() ? "" : ", ") + id;
            }
            std::string owner = p.info["owner"].empty() ? "null" : p.info["owner"];
            std::string sysex = p.info["sysex-size"].empty() ? "null" : p.info["sysex-size"];
            std::string dir = p.dir.substr(p.dir.rfind('/') + 1);
            auto orNull = [&](const char *key) {
                return p.info.count(key) != 0 ? jsonString(p.info[key]) : std::string("null");
            };
            std::printf("%s\n  {\"name\": %s, \"directory\": %s, \"direction\": %s, \"sysex_size\": %s, "
                        "\"owner\": %s, \"processes\": [%s], \"jack_in\": %s, \"jack_out\": %s}",
                        separator, jsonString(p.name()).c_str(), jsonString(dir).c_str(),
                        jsonString(p.info["direction"]).c_str(), sysex.c_str(), owner.c_str(), processes.c_str(),
                        orNull("jack-in").c_str(), orNull("jack-out").c_str());
            separator = ",";
        }
        std::printf("%s]\n", ports.empty() ? "" : "\n");
        return kExitOk;
    }
    // With ambreld in a JACK graph, the names the ports have there.
    bool jack = false;
    for (PortEntry &p : ports) {
        jack = jack || p.info.count("jack-in-lost") != 0;
    }
    const char *row = jack ? "%-24s %-16s %-8s %-8s %-16s %s\n" : "%-24s %-16s %-8s %-8s %s%s\n";
    std::printf(row, "PORT", "DIRECTION", "SYSEX", "OWNER", "PROCESSES", jack ? "JACK" : "");
    for (PortEntry &p : ports) {
        std::string names;
        for (const char *key : {"jack-in", "jack-out"}) {
            if (p.info.count(key) != 0) {
                names += (names.empty() ? "" : ", ") + p.info[key];
            }
        }
        if (jack && names.empty()) {
            names = p.info.count("jack") != 0 ? p.info["jack"] : "-";
        }
        std::printf(row, p.name().c_str(), p.info["direction"].c_str(), p.info["sysex-size"].c_str(),
                    p.info["owner"].c_str(), p.info["processes"].empty() ? "-" : p.info["processes"].c_str(),
                    names.c_str());
    }
    return kExitOk;
}

int cmdHelp(const std::vector<std::string> &argv)
{
    if (argv.empty()) {
        std::fputs(kAmbrelUsage, stdout);
        return kExitOk;
    }
    const char *text = argv.size() == 1 ? commandHelp(argv[0]) : nullptr;
    if (text == nullptr) {
        return usage("no help for \"" + argv[0] + "\": not a command");
    }
    std::fputs(text, stdout);
    return kExitOk;
}

int run(int argc, char **argv)
{
    Context ctx;
    const char *env = std::getenv(AMBREL_MOUNT_ENV);
    ctx.mount = env != nullptr && env[0] != '\0' ? env : AMBREL_DEFAULT_MOUNT;
    int i = 1;
    for (; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "-h" || a == "--help") {
            std::fputs(kAmbrelUsage, stdout);
            return kExitOk;
        }
        if (a == "--version") {
            std::puts("ambrel " AMBREL_VERSION);
            return kExitOk;
        }
        if (a == "--mount" || a.compare(0, 8, "--mount=") == 0) {
            if (a == "--mount") {
                if (i + 1 >= argc) {
                    return usage("--mount needs a directory");
                }
                ctx.mount = argv[++i];
            } else {
                ctx.mount = a.substr(8);
            }
            continue;
        }
        if (!a.empty() && a[0] == '-') {
            return usage("unknown option " + a);
        }
        break;
    }
    if (i >= argc) {
        return usage("no command given");
    }
    std::string command = argv[i];
    std::vector<std::string> rest(argv + i + 1, argv + argc);
    if (command == "help") {
        return cmdHelp(rest);
    }
    const char *help = commandHelp(command);
    if (help == nullptr) {
        return usage("unknown command \"" + command + "\"");
    }
    for (const std::string &r : rest) {
        if (r == "-h" || r == "--help") {
            std::fputs(help, stdout);
            return kExitOk;
        }
    }
    if (command == "hold") {
        return cmdHold(ctx, rest);
    }
    if (command == "send") {
        return cmdSend(ctx, rest);
    }
    if (command == "play") {
        return cmdPlay(ctx, rest);
    }
    if (command == "monitor") {
        return cmdMonitor(ctx, rest);
    }
    return cmdList(ctx, rest);
}

} // namespace

int main(int argc, char **argv)
{
    // Nothing the command meets ends it without a word and an exit status.
    try {
        return run(argc, argv);
    } catch (const std::exception &e) {
        return fail(std::string("unexpected failure: ") + e.what());
    }
}
