// ambrel-echo NAME: creates the port NAME, sends back out of it whatever MIDI
// programs play to it, and every few seconds prints which processes use it.
// Ctrl-C closes the port.
#include <windows.h>

#include <cstdio>
#include <string>

#include "ambrel/ambrel.hpp"

namespace {

volatile LONG gStop = 0;

BOOL WINAPI onCtrl(DWORD)
{
    InterlockedExchange(&gStop, 1);
    return TRUE;
}

std::string narrow(const wchar_t *s)
{
    int n = WideCharToMultiByte(CP_UTF8, 0, s, -1, nullptr, 0, nullptr, nullptr);
    std::string out(n > 0 ? size_t(n) : 1, '\0');
    WideCharToMultiByte(CP_UTF8, 0, s, -1, &out[0], n, nullptr, nullptr);
    out.resize(out.size() - 1);
    return out;
}

} // namespace

int wmain(int argc, wchar_t **argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: ambrel-echo NAME\n");
        return 2;
    }
    SetConsoleCtrlHandler(onCtrl, TRUE);
    try {
        ambrel::Port port(narrow(argv[1]));
        std::printf("port \"%s\" open; Ctrl-C closes it\n", narrow(argv[1]).c_str());
        unsigned char buffer[4096];
        DWORD lastReport = GetTickCount();
        while (gStop == 0) {
            size_t n = port.read(buffer, sizeof buffer, std::chrono::milliseconds(500));
            if (n > 0) {
                port.write(buffer, n);
            }
            if (GetTickCount() - lastReport > 3000) {
                lastReport = GetTickCount();
                std::printf("processes:");
                for (std::uint64_t id : port.processIds()) {
                    std::printf(" %llu", static_cast<unsigned long long>(id));
                }
                std::printf("\n");
            }
        }
    } catch (const ambrel::Error &e) {
        std::fprintf(stderr, "ambrel-echo: %s\n", e.what());
        return 1;
    }
    return 0;
}
