// ambrel-echo NAME: creates the port NAME with libambrel, sends back out of
// it whatever MIDI programs play to it, and prints who uses it whenever that
// changes. Ctrl-C closes the port.
#include <csignal>
#include <cstdio>
#include <vector>

#include "ambrel/ambrel.hpp"

namespace {
volatile std::sig_atomic_t gStop = 0;
void onSignal(int)
{
    gStop = 1;
}
} // namespace

int main(int argc, char **argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: ambrel-echo NAME\n");
        return 2;
    }
    std::signal(SIGINT, onSignal);
    std::signal(SIGTERM, onSignal);
    try {
        ambrel::Port port(argv[1]);
        std::printf("port \"%s\" open; Ctrl-C closes it\n", argv[1]);
        std::fflush(stdout);
        std::vector<std::uint64_t> users;
        std::uint8_t buffer[4096];
        while (!gStop) {
            std::size_t n = port.read(buffer, sizeof buffer, std::chrono::milliseconds(250));
            if (n > 0) {
                port.write(buffer, n);
            }
            std::vector<std::uint64_t> now = port.processIds();
            if (now != users) {
                users = now;
                std::printf("processes:");
                for (std::uint64_t id : users) {
                    std::printf(" %llu", static_cast<unsigned long long>(id));
                }
                std::printf("\n");
                std::fflush(stdout);
            }
        }
    } catch (const ambrel::Error &e) {
        // A signal during a wait is how the loop ends, not a failure.
        if (e.code() != AMBREL_E_INTERRUPTED) {
            std::fprintf(stderr, "ambrel-echo: %s\n", e.what());
            return 1;
        }
    }
    return 0;
}
