// C++ face of libambrel: a port is an owning, movable object; failures throw
// ambrel::Error carrying the AMBREL_E_* code, except a read that times out,
// which returns 0.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "ambrel.h"

namespace ambrel {

class Error : public std::runtime_error {
public:
    Error(int code, const std::string &what) : std::runtime_error(what + ": " + ambrel_strerror(code)), code_(code) {}
    int code() const noexcept { return code_; }

private:
    int code_;
};

struct Options {
    unsigned access = AMBREL_READ | AMBREL_WRITE;
    std::uint32_t sysexSize = 0; // 0: the driver's default
    std::optional<ambrel_guid> manufacturer;
    std::optional<ambrel_guid> product;
    std::string root; // Linux mount; empty: $AMBREL_MOUNT or the default
};

inline ambrel_guid parseGuid(const std::string &text)
{
    ambrel_guid g{};
    int e = ambrel_parse_guid(text.c_str(), &g);
    if (e != AMBREL_OK) {
        throw Error(e, "bad GUID \"" + text + "\"");
    }
    return g;
}

class Port {
public:
    static constexpr std::chrono::milliseconds forever{-1};

    Port() = default;
    explicit Port(const std::string &name, const Options &options = {})
    {
        ambrel_options o{};
        o.access = options.access;
        o.sysex_size = options.sysexSize;
        o.manufacturer = options.manufacturer ? &*options.manufacturer : nullptr;
        o.product = options.product ? &*options.product : nullptr;
        o.root = options.root.empty() ? nullptr : options.root.c_str();
        int e = ambrel_open(name.c_str(), &o, &port_);
        if (e != AMBREL_OK) {
            throw Error(e, "cannot open port \"" + name + "\"");
        }
    }
    Port(Port &&other) noexcept : port_(std::exchange(other.port_, nullptr)) {}
    Port &operator=(Port &&other) noexcept
    {
        if (this != &other) {
            ambrel_close(port_);
            port_ = std::exchange(other.port_, nullptr);
        }
        return *this;
    }
    Port(const Port &) = delete;
    Port &operator=(const Port &) = delete;
    ~Port() { ambrel_close(port_); }

    explicit operator bool() const noexcept { return port_ != nullptr; }
    ambrel_port *get() const noexcept { return port_; }

    // Bytes read (at least 1), or 0 when the timeout passed first.
    std::size_t read(void *buffer, std::size_t length, std::chrono::milliseconds timeout = forever)
    {
        long n = ambrel_read(port_, buffer, length, timeout.count() < 0 ? -1 : int(timeout.count()));
        if (n == AMBREL_E_TIMEOUT) {
            return 0;
        }
        if (n < 0) {
            throw Error(int(n), "read");
        }
        return std::size_t(n);
    }
    std::vector<std::uint8_t> read(std::size_t maxLength, std::chrono::milliseconds timeout = forever)
    {
        std::vector<std::uint8_t> data(maxLength);
        data.resize(read(data.data(), data.size(), timeout));
        return data;
    }

    void write(const void *data, std::size_t length)
    {
        long n = ambrel_write(port_, data, length);
        if (n < 0) {
            throw Error(int(n), "write");
        }
    }
    void write(const std::vector<std::uint8_t> &data) { write(data.data(), data.size()); }

    std::vector<std::uint64_t> processIds() const
    {
        std::vector<std::uint64_t> ids(AMBREL_MAX_PROCESS_IDS);
        std::size_t count = 0;
        int e = ambrel_process_ids(port_, ids.data(), ids.size(), &count);
        if (e != AMBREL_OK) {
            throw Error(e, "process ids");
        }
        ids.resize(count);
        return ids;
    }

    void close()
    {
        int e = ambrel_close(std::exchange(port_, nullptr));
        if (e != AMBREL_OK) {
            throw Error(e, "close");
        }
    }

private:
    ambrel_port *port_ = nullptr;
};

} // namespace ambrel
