// The `ambrel` command: hold a port and watch what is played to it, play
// bytes or a Standard MIDI File into a port, monitor what a port's owner
// sends, and list the ports. Everything goes through ambreld's mount; the
// port owner's side goes through libambrel.
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
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
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "ambrel/ambrel.hpp"
#include "ambrel/mount.h"
#include "midi/midi.h"
#include "midi/smf.h"

namespace {

constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;
constexpr int kExitNotRunning = 3;
constexpr int kExitInterrupted = 130;

const char kUsage[] =
    "Usage: ambrel [--mount DIR] COMMAND [ARGS...]\n"
    "\n"
    "Virtual MIDI ports through ambreld.\n"
    "\n"
    "Commands:\n"
    "  hold NAME [OPTIONS]      create the port NAME and show what MIDI programs play to it,\n"
    "                           until Ctrl-C closes it\n"
    "      --read, --write      one direction only (default: both)\n"
    "      --sysex BYTES        largest SysEx the port carries (8176..1048560)\n"
    "      --manufacturer GUID  component ids MIDI programs see\n"
    "      --product GUID\n"
    "      --thru               send everything received back out of the port\n"
    "      --count N            close the port after N messages\n"
    "      --raw                print bytes in hex instead of decoding them\n"
    "  send NAME BYTES...       play bytes into the port NAME: hex (\"90 3C 64\"), or \"-\" for\n"
    "                           raw bytes from standard input\n"
    "  play NAME FILE.mid       play a Standard MIDI File into the port NAME with its timing\n"
    "      --speed X            tempo factor (default 1)\n"
    "      --no-progress        no progress bar\n"
    "  monitor NAME [OPTIONS]   record from the port NAME: show what its owner sends\n"
    "      --count N, --raw     as for hold\n"
    "  list                     list the ports, their directions and who uses them\n"
    "\n"
    "Options:\n"
    "  --mount DIR              ambreld's mount (default: $AMBREL_MOUNT, else " AMBREL_DEFAULT_MOUNT ")\n"
    "  -h, --help               this text\n"
    "  --version                the version\n"
    "\n"
    "Exit status: 0 success, 1 failure, 2 usage error, 3 ambreld not running,\n"
    "130 interrupted (play).\n";

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

int usage(const std::string &message)
{
    std::fprintf(stderr, "ambrel: %s\nTry 'ambrel --help'.\n", message.c_str());
    return kExitUsage;
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
// unknown option or a missing value.
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

// The directory of a published port: by its name, else by the name its info
// file gives (ports listed under their reference string).
bool findPortDir(const Context &ctx, const std::string &name, std::string *dir)
{
    std::string ports = ctx.mount + "/" AMBREL_PORTS_DIR;
    struct stat st;
    if (name.find('/') == std::string::npos && name != "." && name != ".." &&
        stat((ports + "/" + name).c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
        *dir = ports + "/" + name;
        return true;
    }
    DIR *d = opendir(ports.c_str());
    if (d == nullptr) {
        return false;
    }
    bool found = false;
    while (dirent *e = readdir(d)) {
        std::string entry = e->d_name;
        if (entry == "." || entry == "..") {
            continue;
        }
        if (readInfo(ports + "/" + entry + "/" AMBREL_INFO_FILE)["name"] == name) {
            *dir = ports + "/" + entry;
            found = true;
            break;
        }
    }
    closedir(d);
    return found;
}

int openPortFile(const Context &ctx, const std::string &name, const char *file, int flags, int *fd)
{
    if (!daemonRunning(ctx)) {
        return fail("ambreld is not running at " + ctx.mount + " (start it with ambreld, or set --mount)",
                    kExitNotRunning);
    }
    std::string dir;
    if (!findPortDir(ctx, name, &dir)) {
        return fail("no port named \"" + name + "\"");
    }
    std::string path = dir + "/" + file;
    *fd = open(path.c_str(), flags | O_CLOEXEC);
    if (*fd < 0) {
        if (errno == ENOENT) {
            return fail(std::string("port \"") + name + "\" has no " +
                        (std::strcmp(file, AMBREL_OUT_FILE) == 0 ? "render side (nobody can play to it)"
                                                                  : "capture side (nobody can record from it)"));
        }
        return fail("cannot open " + path + ": " + std::strerror(errno));
    }
    return kExitOk;
}

// Writes all of `data`, retrying after a signal that did not ask to stop.
bool writeAll(int fd, const std::uint8_t *data, size_t length, std::string *error)
{
    while (length > 0) {
        ssize_t n = write(fd, data, length);
        if (n < 0) {
            if (errno == EINTR && !gStop) {
                continue;
            }
            *error = std::strerror(errno);
            return false;
        }
        data += n;
        length -= size_t(n);
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
        return usage(error);
    }
    if (a.positional.size() != 1) {
        return usage("hold needs exactly one port name");
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
        if (!parseNumber(a.values["--sysex"], 0xFFFFFFFFull, &value) || value == 0) {
            return usage("--sysex needs a size in bytes");
        }
        o.sysexSize = std::uint32_t(value);
    }
    unsigned long long count = 0;
    if (a.values.count("--count") && (!parseNumber(a.values["--count"], ~0ull, &count) || count == 0)) {
        return usage("--count needs a positive number");
    }
    try {
        if (a.values.count("--manufacturer")) {
            o.manufacturer = ambrel::parseGuid(a.values["--manufacturer"]);
        }
        if (a.values.count("--product")) {
            o.product = ambrel::parseGuid(a.values["--product"]);
        }
    } catch (const ambrel::Error &e) {
        return usage(e.what());
    }
    bool thru = a.has("--thru");
    if (thru && o.access != (AMBREL_READ | AMBREL_WRITE)) {
        return usage("--thru needs both directions");
    }
    const std::string &name = a.positional[0];
    catchSignals();
    ambrel::Port port;
    try {
        port = ambrel::Port(name, o);
    } catch (const ambrel::Error &e) {
        return fail(e.what(), e.code() == AMBREL_E_NODRIVER ? kExitNotRunning : kExitFailure);
    }
    std::fprintf(stderr, "ambrel: port \"%s\" is open (%s); Ctrl-C closes it\n", name.c_str(),
                 o.access == AMBREL_READ ? "programs play to it" :
                 o.access == AMBREL_WRITE ? "programs record from it" : "programs play to it and record from it");
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
    int rc = kExitOk;
    while (!gStop && (count == 0 || seen < count)) {
        long n = ambrel_read(port.get(), buffer.data(), buffer.size(), 500);
        if (n == AMBREL_E_TIMEOUT || n == AMBREL_E_INTERRUPTED) {
            continue;
        }
        if (n < 0) {
            rc = fail(std::string("read: ") + ambrel_strerror(int(n)));
            break;
        }
        if (thru) {
            long w = ambrel_write(port.get(), buffer.data(), size_t(n));
            if (w < 0) {
                rc = fail(std::string("write: ") + ambrel_strerror(int(w)));
                break;
            }
        }
        splitter.feed(buffer.data(), size_t(n), [&](const std::uint8_t *m, size_t len) {
            ++seen;
            printer.print(m, len, m[0] == 0xF0 ? splitter.sysexLength() : 0);
        });
    }
    return rc;
}

int cmdSend(const Context &ctx, const std::vector<std::string> &argv)
{
    if (argv.size() < 2) {
        return usage("send needs a port name and bytes");
    }
    std::vector<std::uint8_t> bytes;
    if (argv.size() == 2 && argv[1] == "-") {
        std::vector<std::uint8_t> chunk(65536);
        ssize_t n;
        while ((n = read(STDIN_FILENO, chunk.data(), chunk.size())) > 0) {
            bytes.insert(bytes.end(), chunk.begin(), chunk.begin() + n);
        }
        if (n < 0) {
            return fail(std::string("reading standard input: ") + std::strerror(errno));
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
            return usage("bytes must be hexadecimal pairs, e.g. \"90 3C 64\"");
        }
    }
    int fd = -1;
    int rc = openPortFile(ctx, argv[0], AMBREL_OUT_FILE, O_WRONLY, &fd);
    if (rc != kExitOk) {
        return rc;
    }
    std::string error;
    bool ok = writeAll(fd, bytes.data(), bytes.size(), &error);
    close(fd);
    return ok ? kExitOk : fail("send: " + error);
}

void drawProgress(double t, double total)
{
    constexpr int width = 30;
    double f = total > 0 ? std::min(1.0, t / total) : 1.0;
    int filled = int(f * width + 0.5);
    std::string bar(size_t(filled), '#');
    bar.append(size_t(width - filled), '-');
    std::fprintf(stderr, "\r[%s] %3d%%  %d:%02d / %d:%02d", bar.c_str(), int(f * 100), int(t) / 60, int(t) % 60,
                 int(total) / 60, int(total) % 60);
    std::fflush(stderr);
}

int cmdPlay(const Context &ctx, const std::vector<std::string> &argv)
{
    Args a;
    std::string error;
    if (!parseArgs(argv, {"--speed"}, {"--no-progress"}, &a, &error)) {
        return usage(error);
    }
    if (a.positional.size() != 2) {
        return usage("play needs a port name and a file");
    }
    double speed = 1;
    if (a.values.count("--speed")) {
        char *end = nullptr;
        speed = std::strtod(a.values["--speed"].c_str(), &end);
        if (end == nullptr || *end != '\0' || !(speed > 0) || !std::isfinite(speed)) {
            return usage("--speed needs a positive factor");
        }
    }
    ambrel::midi::Smf smf;
    if (!ambrel::midi::readSmfFile(a.positional[1], &smf, &error)) {
        return fail(a.positional[1] + ": " + error);
    }
    int fd = -1;
    int rc = openPortFile(ctx, a.positional[0], AMBREL_OUT_FILE, O_WRONLY, &fd);
    if (rc != kExitOk) {
        return rc;
    }
    catchSignals();
    bool progress = !a.has("--no-progress");
    double total = smf.duration / speed;
    timespec start;
    clock_gettime(CLOCK_MONOTONIC, &start);
    double startSeconds = double(start.tv_sec) + double(start.tv_nsec) / 1e9;
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
        if (!writeAll(fd, e.bytes.data(), e.bytes.size(), &error)) {
            rc = fail("play: " + error);
            break;
        }
        double t = e.seconds / speed;
        if (progress && t - lastDrawn >= 0.1) {
            drawProgress(t, total);
            lastDrawn = t;
        }
    }
    if (gStop) {
        // Leave no note hanging: All Notes Off on every channel.
        for (int ch = 0; ch < 16; ++ch) {
            std::uint8_t off[3] = {std::uint8_t(0xB0 | ch), 123, 0};
            writeAll(fd, off, sizeof off, &error);
        }
        rc = kExitInterrupted;
    }
    if (progress) {
        if (rc == kExitOk) {
            drawProgress(total, total);
        }
        std::fputc('\n', stderr);
    }
    close(fd);
    return rc;
}

int cmdMonitor(const Context &ctx, const std::vector<std::string> &argv)
{
    Args a;
    std::string error;
    if (!parseArgs(argv, {"--count"}, {"--raw"}, &a, &error)) {
        return usage(error);
    }
    if (a.positional.size() != 1) {
        return usage("monitor needs exactly one port name");
    }
    unsigned long long count = 0;
    if (a.values.count("--count") && (!parseNumber(a.values["--count"], ~0ull, &count) || count == 0)) {
        return usage("--count needs a positive number");
    }
    int fd = -1;
    int rc = openPortFile(ctx, a.positional[0], AMBREL_IN_FILE, O_RDONLY, &fd);
    if (rc != kExitOk) {
        return rc;
    }
    catchSignals();
    Printer printer(a.has("--raw"));
    ambrel::midi::Splitter splitter;
    std::vector<std::uint8_t> buffer((1 << 20) + 64);
    unsigned long long seen = 0;
    while (!gStop && (count == 0 || seen < count)) {
        ssize_t n = read(fd, buffer.data(), buffer.size());
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            if (n < 0) {
                rc = fail(std::string("monitor: ") + std::strerror(errno));
            }
            break;
        }
        splitter.feed(buffer.data(), size_t(n), [&](const std::uint8_t *m, size_t len) {
            ++seen;
            printer.print(m, len, m[0] == 0xF0 ? splitter.sysexLength() : 0);
        });
    }
    close(fd);
    return rc;
}

int cmdList(const Context &ctx, const std::vector<std::string> &argv)
{
    if (!argv.empty()) {
        return usage("list takes no arguments");
    }
    if (!daemonRunning(ctx)) {
        return fail("ambreld is not running at " + ctx.mount + " (start it with ambreld, or set --mount)",
                    kExitNotRunning);
    }
    std::string ports = ctx.mount + "/" AMBREL_PORTS_DIR;
    DIR *d = opendir(ports.c_str());
    if (d == nullptr) {
        return fail("cannot list " + ports + ": " + std::strerror(errno));
    }
    std::vector<std::map<std::string, std::string>> rows;
    while (dirent *e = readdir(d)) {
        std::string entry = e->d_name;
        if (entry != "." && entry != "..") {
            auto info = readInfo(ports + "/" + entry + "/" AMBREL_INFO_FILE);
            if (!info.empty()) {
                rows.push_back(std::move(info));
            }
        }
    }
    closedir(d);
    std::sort(rows.begin(), rows.end(), [](auto &x, auto &y) { return x["name"] < y["name"]; });
    std::printf("%-24s %-16s %-8s %s\n", "PORT", "DIRECTION", "OWNER", "PROCESSES");
    for (auto &r : rows) {
        std::printf("%-24s %-16s %-8s %s\n", r["name"].c_str(), r["direction"].c_str(), r["owner"].c_str(),
                    r["processes"].empty() ? "-" : r["processes"].c_str());
    }
    return kExitOk;
}

} // namespace

int main(int argc, char **argv)
{
    Context ctx;
    const char *env = std::getenv(AMBREL_MOUNT_ENV);
    ctx.mount = env != nullptr && env[0] != '\0' ? env : AMBREL_DEFAULT_MOUNT;
    int i = 1;
    for (; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "-h" || a == "--help") {
            std::fputs(kUsage, stdout);
            return kExitOk;
        }
        if (a == "--version") {
            std::puts("ambrel 1.0");
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
    for (const std::string &r : rest) {
        if (r == "-h" || r == "--help") {
            std::fputs(kUsage, stdout);
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
    if (command == "list") {
        return cmdList(ctx, rest);
    }
    return usage("unknown command \"" + command + "\"");
}
