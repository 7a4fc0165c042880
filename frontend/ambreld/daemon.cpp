#include <fuse_lowlevel.h>

#include "daemon.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <shared_mutex>
#include <sstream>
#include <thread>
#include <unordered_map>
#include <vector>

#include <hostkernel/executive.h>
#include <hostkernel/io.h>
#include <hostkernel/pnp.h>
#include <hostkernel/registry.h>

#include "adapter/amadapter.h"
#include "ambrel_host.h"
#include "adapter/porttable.h"
#include "ambrel/mount.h"
#include "midigraph.h"
#include "pins.h"
#include "portlink.h"
#include "ports.h"
#include "reader.h"
#include "status_errno.h"
#include "text.h"

namespace ambreld {

namespace hk = hostkernel;

namespace {

constexpr ULONG kIoctlProcessIds = 0x80012004;
constexpr std::size_t kReadAhead = 64 * 1024;
const std::u16string kService = u"ambrel";
const std::u16string kControlLink = u"\\DosDevices\\Ambrel";

// ------------------------------------------------------------------ processes
// One host-kernel process per Linux process that has something open, so the
// driver sees (and reports) real pids. It lives while one of its files does.
class ProcessTable {
public:
    // Null only if the host kernel refuses the process (it never should).
    std::shared_ptr<hk::Process> get(std::uint64_t pid)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        for (;;) {
            auto it = table_.find(pid);
            if (it == table_.end()) {
                break;
            }
            if (auto p = it->second.lock()) {
                return p;
            }
            // Its last file just went: the host kernel still knows the
            // process until the deleter has run, and one pid cannot be
            // live twice there.
            gone_.wait(lock);
        }
        std::shared_ptr<hk::Process> p;
        try {
            p.reset(new hk::Process(pid), [this, pid](hk::Process *dead) {
                delete dead; // closes nothing: every file of it is closed
                std::lock_guard<std::mutex> g(mutex_);
                table_.erase(pid);
                gone_.notify_all();
            });
        } catch (const std::exception &) {
            return nullptr;
        }
        table_[pid] = p;
        return p;
    }

private:
    std::mutex mutex_;
    std::condition_variable gone_;
    std::unordered_map<std::uint64_t, std::weak_ptr<hk::Process>> table_;
};

// FUSE names the calling thread; the driver is to see its process.
std::uint64_t processIdOf(pid_t tid)
{
    std::ifstream status("/proc/" + std::to_string(tid) + "/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.compare(0, 5, "Tgid:") == 0) {
            long tgid = std::strtol(line.c_str() + 5, nullptr, 10);
            return tgid > 0 ? std::uint64_t(tgid) : std::uint64_t(tid);
        }
    }
    return std::uint64_t(tid); // gone already: its thread id is all there is
}

// ------------------------------------------------------------------ nodes
enum class Kind { Root, PortsDir, Control, PortDir, Out, In, Info };

constexpr fuse_ino_t kRootIno = FUSE_ROOT_ID;
constexpr fuse_ino_t kPortsIno = 2;

// Inode numbers for names the kernel has looked up: a control file per name
// below the root, a directory per port name, its files. Forgotten names give
// their number up.
class NodeTable {
public:
    struct Node {
        Kind kind;
        std::string key; // control: the file name; port nodes: the directory name
        std::uint64_t lookups = 0;
    };

    fuse_ino_t ref(Kind kind, const std::string &key)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        auto k = std::make_pair(kind, key);
        auto it = byKey_.find(k);
        fuse_ino_t ino;
        if (it == byKey_.end()) {
            ino = next_++;
            byKey_[k] = ino;
            nodes_[ino] = Node{kind, key, 0};
        } else {
            ino = it->second;
        }
        ++nodes_[ino].lookups;
        return ino;
    }

    void forget(fuse_ino_t ino, std::uint64_t n)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = nodes_.find(ino);
        if (it == nodes_.end()) {
            return;
        }
        it->second.lookups -= std::min(n, it->second.lookups);
        if (it->second.lookups == 0) {
            byKey_.erase(std::make_pair(it->second.kind, it->second.key));
            nodes_.erase(it);
        }
    }

    bool get(fuse_ino_t ino, Node *node)
    {
        if (ino == kRootIno || ino == kPortsIno) {
            *node = Node{ino == kRootIno ? Kind::Root : Kind::PortsDir, "", 1};
            return true;
        }
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = nodes_.find(ino);
        if (it == nodes_.end()) {
            return false;
        }
        *node = it->second;
        return true;
    }

    // Numbers for readdir entries (the kernel looks every name up again).
    fuse_ino_t peek(Kind kind, const std::string &key)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = byKey_.find(std::make_pair(kind, key));
        return it == byKey_.end() ? fuse_ino_t(0xFFFFFFFF) : it->second;
    }

private:
    std::mutex mutex_;
    fuse_ino_t next_ = 16;
    std::map<fuse_ino_t, Node> nodes_;
    std::map<std::pair<Kind, std::string>, fuse_ino_t> byKey_;
};

// ------------------------------------------------------------------ open files
// The kernel may still hand the daemon a request for a file it has already
// released (a read abandoned by a killed process), so files are found by
// number and shared by the requests using them; close() waits for those in
// progress and refuses later ones.
struct OpenFile {
    explicit OpenFile(Kind k) : kind(k) {}
    virtual ~OpenFile() = default;

    bool enter()
    {
        gate_.lock_shared();
        if (closed_) {
            gate_.unlock_shared();
            return false;
        }
        return true;
    }
    void leave() { gate_.unlock_shared(); }
    // At release, or at shutdown for files the kernel never released.
    void close()
    {
        std::unique_lock<std::shared_mutex> lock(gate_);
        if (!closed_) {
            closed_ = true;
            shut();
        }
    }

    const Kind kind;

protected:
    // Ends everything the file holds in the host kernel.
    virtual void shut() {}

private:
    std::shared_mutex gate_;
    bool closed_ = false;
};

// A port owner's handle on the control device.
struct OwnerFile : OpenFile {
    OwnerFile() : OpenFile(Kind::Control) {}
    ~OwnerFile() override { close(); }

    void start()
    {
        reader = std::make_unique<AsyncReader>(
            [this](std::size_t size, AsyncReader::FetchContext &context) {
                AsyncReader::Result result;
                auto request = process->readAsync(handle, ULONG(std::min<std::size_t>(size, 0x7FFFFFFF)));
                {
                    std::lock_guard<std::mutex> lock(mutex);
                    current = request;
                }
                if (context.cancelled) {
                    request->cancel();
                }
                if (!request->done()) {
                    context.parked();
                }
                request->wait();
                {
                    std::lock_guard<std::mutex> lock(mutex);
                    current.reset();
                }
                result.status = request->status();
                if (NT_SUCCESS(result.status)) {
                    const auto &out = request->output();
                    std::size_t n = std::min<std::size_t>(request->information(), out.size());
                    result.chunks.emplace_back(out.begin(), out.begin() + long(n));
                }
                return result;
            },
            [this] {
                std::shared_ptr<hk::Request> request;
                {
                    std::lock_guard<std::mutex> lock(mutex);
                    request = current;
                }
                if (request) {
                    request->cancel();
                }
            },
            false, kReadAhead);
    }

    void shut() override
    {
        if (process == nullptr) {
            return;
        }
        if (reader) {
            reader->stop();
        }
        // The driver's cleanup finishes a read still parked (the reader's
        // fetch then ends), and its close withdraws the port.
        process->close(handle);
        if (reader) {
            reader->join();
            reader.reset();
        }
        // The port's pins learn it at once: their writers and readers are
        // answered instead of playing into a port that is no more.
        if (link) {
            link->withdraw(stopping != nullptr && stopping->load() ? ENODEV : ESHUTDOWN);
        }
        process.reset();
    }

    std::shared_ptr<hk::Process> process;
    hk::Handle handle = 0;
    bool canRead = false;
    bool canWrite = false;
    std::u16string name;            // the port's name as the driver took it
    std::u16string referenceString; // "ambrelN"
    std::shared_ptr<PortLink> link;  // the port as its pins need it
    const std::atomic<bool> *stopping = nullptr;
    std::unique_ptr<AsyncReader> reader;
    std::mutex mutex;
    std::shared_ptr<hk::Request> current;
};

struct InfoFile : OpenFile {
    InfoFile() : OpenFile(Kind::Info) {}
    std::string text;
};

struct PinOpenFile : OpenFile {
    PinOpenFile(Kind k, std::unique_ptr<PinFile> p) : OpenFile(k), pin(std::move(p)) {}
    ~PinOpenFile() override { close(); }
    void shut() override
    {
        if (pin) {
            pin->close();
            pin.reset();
        }
    }
    std::unique_ptr<PinFile> pin;
};

// ------------------------------------------------------------------ the daemon
struct State {
    ProcessTable processes;
    NodeTable nodes;
    std::mutex filesMutex;
    std::unordered_map<std::uint64_t, std::shared_ptr<OpenFile>> files; // by file handle number
    std::condition_variable filesAdded;
    std::uint64_t nextFileHandle = 1;
    std::time_t started = std::time(nullptr);
    std::atomic<bool> stopping{false}; // ports are withdrawn because ambreld stops
    uid_t uid = getuid();
    gid_t gid = getgid();
    // Who may use the mount besides its owner: everyone, or one group.
    bool everyone = false;
    std::optional<gid_t> group;
    // The MIDI graph every port appears in (--jack), else null.
    std::unique_ptr<MidiGraph> graph;
};

State *gState = nullptr;

std::uint64_t addFile(std::shared_ptr<OpenFile> f)
{
    std::lock_guard<std::mutex> lock(gState->filesMutex);
    std::uint64_t fh = gState->nextFileHandle++;
    gState->files.emplace(fh, std::move(f));
    gState->filesAdded.notify_all();
    return fh;
}

// Unlinks the file from the daemon; null when release or shutdown took it.
std::shared_ptr<OpenFile> takeFile(std::uint64_t fh)
{
    std::lock_guard<std::mutex> lock(gState->filesMutex);
    auto it = gState->files.find(fh);
    if (it == gState->files.end()) {
        return nullptr;
    }
    std::shared_ptr<OpenFile> f = std::move(it->second);
    gState->files.erase(it);
    return f;
}

// A request's hold on its file: empty when the file is gone or closed.
class FileUse {
public:
    explicit FileUse(std::uint64_t fh)
    {
        {
            std::lock_guard<std::mutex> lock(gState->filesMutex);
            auto it = gState->files.find(fh);
            if (it != gState->files.end()) {
                file_ = it->second;
            }
        }
        if (file_ && !file_->enter()) {
            file_.reset();
        }
    }
    ~FileUse()
    {
        if (file_) {
            file_->leave();
        }
    }
    FileUse(const FileUse &) = delete;
    FileUse &operator=(const FileUse &) = delete;
    OpenFile *get() const { return file_.get(); }

private:
    std::shared_ptr<OpenFile> file_;
};

// The owner's file of a published port: its process and handle, and the
// port's link. Null when no open owner's file names that port.
OwnerFile *ownerOf(const std::u16string &referenceString, std::shared_ptr<hk::Process> *process, hk::Handle *handle,
                   std::shared_ptr<PortLink> *link = nullptr)
{
    std::lock_guard<std::mutex> lock(gState->filesMutex);
    for (auto &entry : gState->files) {
        if (entry.second->kind == Kind::Control) {
            auto *o = static_cast<OwnerFile *>(entry.second.get());
            if (o->referenceString == referenceString && o->process) {
                *process = o->process;
                *handle = o->handle;
                if (link != nullptr) {
                    *link = o->link;
                }
                return o;
            }
        }
    }
    return nullptr;
}

// Linux gives MIDI devices to a group (mode 0660): so does the mount. The
// modes show it; allowed() enforces it on every lookup, listing and open.
void fillAttr(Kind kind, fuse_ino_t ino, struct stat *st)
{
    std::memset(st, 0, sizeof *st);
    st->st_ino = ino;
    st->st_uid = gState->uid;
    st->st_gid = gState->group.value_or(gState->gid);
    st->st_atime = st->st_mtime = st->st_ctime = gState->started;
    // Owner and group bits, repeated for others when everyone may.
    mode_t bits = 0;
    switch (kind) {
    case Kind::Root:
    case Kind::PortsDir:
    case Kind::PortDir:
        st->st_mode = S_IFDIR;
        bits = 05;
        st->st_nlink = 2;
        break;
    case Kind::Control:
        st->st_mode = S_IFREG;
        bits = 06;
        st->st_nlink = 1;
        break;
    case Kind::Out:
        st->st_mode = S_IFREG;
        bits = 02;
        st->st_nlink = 1;
        break;
    case Kind::In:
    case Kind::Info:
        st->st_mode = S_IFREG;
        bits = 04;
        st->st_nlink = 1;
        break;
    }
    st->st_mode |= bits << 6 | (gState->group || gState->everyone ? bits << 3 : 0) | (gState->everyone ? bits : 0);
}

// The caller is the mount's owner (root), a member of its group, or anyone
// when the mount is public; otherwise the request was answered EACCES.
bool allowed(fuse_req_t req)
{
    const fuse_ctx *ctx = fuse_req_ctx(req);
    if (gState->everyone || ctx->uid == gState->uid || ctx->uid == 0) {
        return true;
    }
    if (gState->group) {
        if (ctx->gid == *gState->group) {
            return true;
        }
        std::vector<gid_t> groups(64);
        int n = fuse_req_getgroups(req, int(groups.size()), groups.data());
        if (n > int(groups.size())) {
            groups.resize(size_t(n));
            n = fuse_req_getgroups(req, int(groups.size()), groups.data());
        }
        for (int i = 0; i < n && i < int(groups.size()); ++i) {
            if (groups[size_t(i)] == *gState->group) {
                return true;
            }
        }
    }
    fuse_reply_err(req, EACCES);
    return false;
}

bool portHas(const PortView &p, Kind kind)
{
    return kind == Kind::Info || (kind == Kind::Out && !p.renderLink.empty()) ||
           (kind == Kind::In && !p.captureLink.empty());
}

void replyEntry(fuse_req_t req, Kind kind, fuse_ino_t ino)
{
    fuse_entry_param e{};
    e.ino = ino;
    // Ports come and go under the kernel's feet: nothing is cached.
    e.attr_timeout = 0;
    e.entry_timeout = 0;
    fillAttr(kind, ino, &e.attr);
    if (fuse_reply_entry(req, &e) != 0 && kind != Kind::Root && kind != Kind::PortsDir) {
        gState->nodes.forget(ino, 1); // the kernel never got the number
    }
}

void opLookup(fuse_req_t req, fuse_ino_t parent, const char *name)
{
    if (!allowed(req)) {
        return;
    }
    NodeTable::Node node;
    if (!gState->nodes.get(parent, &node)) {
        fuse_reply_err(req, ENOENT);
        return;
    }
    std::string n = name;
    switch (node.kind) {
    case Kind::Root:
        if (n == AMBREL_PORTS_DIR) {
            replyEntry(req, Kind::PortsDir, kPortsIno);
        } else {
            replyEntry(req, Kind::Control, gState->nodes.ref(Kind::Control, n));
        }
        return;
    case Kind::PortsDir: {
        PortView p;
        if (!findPortByDirName(n, &p)) {
            fuse_reply_err(req, ENOENT);
            return;
        }
        replyEntry(req, Kind::PortDir, gState->nodes.ref(Kind::PortDir, n));
        return;
    }
    case Kind::PortDir: {
        PortView p;
        Kind kind = n == AMBREL_OUT_FILE ? Kind::Out : n == AMBREL_IN_FILE ? Kind::In : Kind::Info;
        if ((kind == Kind::Info && n != AMBREL_INFO_FILE) || !findPortByDirName(node.key, &p) || !portHas(p, kind)) {
            fuse_reply_err(req, ENOENT);
            return;
        }
        replyEntry(req, kind, gState->nodes.ref(kind, node.key));
        return;
    }
    default:
        fuse_reply_err(req, ENOTDIR);
    }
}

void opForget(fuse_req_t req, fuse_ino_t ino, uint64_t nlookup)
{
    gState->nodes.forget(ino, nlookup);
    fuse_reply_none(req);
}

void opForgetMulti(fuse_req_t req, size_t count, struct fuse_forget_data *forgets)
{
    for (size_t i = 0; i < count; ++i) {
        gState->nodes.forget(forgets[i].ino, forgets[i].nlookup);
    }
    fuse_reply_none(req);
}

// A port node whose port is gone answers ENOENT.
bool nodeLive(const NodeTable::Node &node)
{
    if (node.kind != Kind::PortDir && node.kind != Kind::Out && node.kind != Kind::In && node.kind != Kind::Info) {
        return true;
    }
    PortView p;
    return findPortByDirName(node.key, &p) && portHas(p, node.kind == Kind::PortDir ? Kind::Info : node.kind);
}

void opGetattr(fuse_req_t req, fuse_ino_t ino, struct fuse_file_info *)
{
    NodeTable::Node node;
    if (!gState->nodes.get(ino, &node) || !nodeLive(node)) {
        fuse_reply_err(req, ENOENT);
        return;
    }
    struct stat st;
    fillAttr(node.kind, ino, &st);
    fuse_reply_attr(req, &st, 0);
}

// Truncation (O_TRUNC from shells' ">") means nothing to a port: accepted.
void opSetattr(fuse_req_t req, fuse_ino_t ino, struct stat *, int, struct fuse_file_info *fi)
{
    opGetattr(req, ino, fi);
}

void opOpendir(fuse_req_t req, fuse_ino_t ino, struct fuse_file_info *fi)
{
    if (!allowed(req)) {
        return;
    }
    NodeTable::Node node;
    if (!gState->nodes.get(ino, &node) || !nodeLive(node)) {
        fuse_reply_err(req, ENOENT);
        return;
    }
    if (node.kind != Kind::Root && node.kind != Kind::PortsDir && node.kind != Kind::PortDir) {
        fuse_reply_err(req, ENOTDIR);
        return;
    }
    fuse_reply_open(req, fi);
}

void opReaddir(fuse_req_t req, fuse_ino_t ino, size_t size, off_t off, struct fuse_file_info *)
{
    NodeTable::Node node;
    if (!gState->nodes.get(ino, &node)) {
        fuse_reply_err(req, ENOENT);
        return;
    }
    struct Entry {
        std::string name;
        Kind kind;
        fuse_ino_t ino;
    };
    std::vector<Entry> entries{{".", node.kind, ino}, {"..", Kind::Root, kRootIno}};
    if (node.kind == Kind::Root) {
        entries.push_back({AMBREL_PORTS_DIR, Kind::PortsDir, kPortsIno});
    } else if (node.kind == Kind::PortsDir) {
        for (const PortView &p : listPorts()) {
            entries.push_back({p.dirName, Kind::PortDir, gState->nodes.peek(Kind::PortDir, p.dirName)});
        }
    } else if (node.kind == Kind::PortDir) {
        PortView p;
        if (!findPortByDirName(node.key, &p)) {
            fuse_reply_err(req, ENOENT);
            return;
        }
        for (Kind k : {Kind::Out, Kind::In, Kind::Info}) {
            if (portHas(p, k)) {
                const char *n = k == Kind::Out ? AMBREL_OUT_FILE : k == Kind::In ? AMBREL_IN_FILE : AMBREL_INFO_FILE;
                entries.push_back({n, k, gState->nodes.peek(k, node.key)});
            }
        }
    } else {
        fuse_reply_err(req, ENOTDIR);
        return;
    }
    std::vector<char> buf(size);
    size_t used = 0;
    for (size_t i = size_t(std::max<off_t>(off, 0)); i < entries.size(); ++i) {
        struct stat st;
        fillAttr(entries[i].kind, entries[i].ino, &st);
        size_t need = fuse_add_direntry(req, buf.data() + used, size - used, entries[i].name.c_str(), &st, off_t(i + 1));
        if (need > size - used) {
            break;
        }
        used += need;
    }
    fuse_reply_buf(req, buf.data(), used);
}

void opReleasedir(fuse_req_t req, fuse_ino_t, struct fuse_file_info *)
{
    fuse_reply_err(req, 0);
}

std::string infoText(hk::Process &reader, const PortView &p)
{
    std::ostringstream out;
    out << "name: " << utf16ToUtf8(p.name) << "\n";
    out << "reference: " << utf16ToUtf8(p.referenceString) << "\n";
    std::string direction;
    if (!p.renderLink.empty()) {
        direction = "render";
    }
    if (!p.captureLink.empty()) {
        direction += direction.empty() ? "capture" : " capture";
    }
    out << "direction: " << direction << "\n";
    std::u16string nameGuid = nameGuidOf(p.name);
    out << "name-guid: " << (nameGuid.empty() ? "-" : utf16ToUtf8(nameGuid)) << "\n";
    out << describeFilter(reader, p);
    std::shared_ptr<hk::Process> owner;
    hk::Handle handle = 0;
    std::shared_ptr<PortLink> link;
    if (ownerOf(p.referenceString, &owner, &handle, &link) != nullptr) {
        if (link) {
            out << "sysex-size: " << link->sysexSize() << "\n";
        }
        out << "owner: " << owner->id() << "\n";
        // The owner's own query, made on its handle as the owner.
        std::uint64_t ids[16] = {};
        hk::IoResult r = owner->deviceControl(handle, kIoctlProcessIds, nullptr, 0, ids, sizeof ids);
        out << "processes:";
        if (NT_SUCCESS(r.status)) {
            for (size_t i = 0; i < r.information / 8 && i < 16; ++i) {
                out << " " << ids[i];
            }
        }
        out << "\n";
    }
    if (gState->graph) {
        out << gState->graph->describe(p.referenceString, link.get());
    }
    return out.str();
}

// The link of a listed port. The driver publishes a port inside its owner's
// open, a moment before the daemon files the owner's handle: a pin opened in
// that moment waits for it (a port that goes meanwhile has none).
std::shared_ptr<PortLink> waitForOwner(const PortView &port)
{
    auto until = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    for (;;) {
        std::shared_ptr<hk::Process> process;
        hk::Handle handle = 0;
        std::shared_ptr<PortLink> link;
        if (ownerOf(port.referenceString, &process, &handle, &link) != nullptr) {
            return link;
        }
        PortView again;
        if (!findPortByDirName(port.dirName, &again) || again.referenceString != port.referenceString ||
            std::chrono::steady_clock::now() > until) {
            return nullptr;
        }
        std::unique_lock<std::mutex> lock(gState->filesMutex);
        gState->filesAdded.wait_for(lock, std::chrono::milliseconds(10));
    }
}

// The kernel's answer to an open, as <linux/fuse.h> lays it out. libfuse
// cannot say FOPEN_STREAM, and without it the kernel serialises every read
// and write on one descriptor: a thread waiting in read() would hold up
// another thread's write() to the same port.
struct OpenReply {
    std::uint64_t fh;
    std::uint32_t openFlags;
    std::uint32_t padding;
};
constexpr std::uint32_t kOpenDirectIo = 1u << 0;    // FOPEN_DIRECT_IO
constexpr std::uint32_t kOpenNonSeekable = 1u << 2; // FOPEN_NONSEEKABLE
constexpr std::uint32_t kOpenStream = 1u << 4;      // FOPEN_STREAM

void replyOpen(fuse_req_t req, struct fuse_file_info *, std::shared_ptr<OpenFile> file)
{
    OpenReply reply{0, kOpenDirectIo, 0};
    if (file->kind != Kind::Info) {
        reply.openFlags |= kOpenNonSeekable | kOpenStream;
    }
    reply.fh = addFile(std::move(file));
    if (fuse_reply_buf(req, reinterpret_cast<const char *>(&reply), sizeof reply) != 0) {
        // The opener went away before the answer (interrupted open): no
        // release will come for this file.
        if (std::shared_ptr<OpenFile> f = takeFile(reply.fh)) {
            f->close();
        }
    }
}

// The host process standing for the Linux process behind a request, or null
// after the request has been answered with the reason there is none.
std::shared_ptr<hk::Process> callerProcess(fuse_req_t req)
{
    const fuse_ctx *ctx = fuse_req_ctx(req);
    if (ctx->pid <= 0) {
        fuse_reply_err(req, EPERM);
        return nullptr;
    }
    std::shared_ptr<hk::Process> process = gState->processes.get(processIdOf(ctx->pid));
    if (!process) {
        fuse_reply_err(req, EIO);
    }
    return process;
}

void openControl(fuse_req_t req, const std::string &fileName, struct fuse_file_info *fi)
{
    std::u16string name16;
    if (!utf8ToUtf16(fileName, &name16)) {
        fuse_reply_err(req, EINVAL);
        return;
    }
    int mode = fi->flags & O_ACCMODE;
    ACCESS_MASK access = mode == O_RDONLY ? FILE_GENERIC_READ
                         : mode == O_WRONLY ? FILE_GENERIC_WRITE
                                            : FILE_GENERIC_READ | FILE_GENERIC_WRITE;
    auto file = std::make_unique<OwnerFile>();
    file->process = callerProcess(req);
    if (!file->process) {
        return;
    }
    NTSTATUS status = file->process->open(kControlLink + u"\\" + name16, access, &file->handle);
    if (!NT_SUCCESS(status)) {
        file->process.reset();
        fuse_reply_err(req, errnoFromStatus(status));
        return;
    }
    file->canRead = mode != O_WRONLY;
    file->canWrite = mode != O_RDONLY;
    // The handle's port record lives as long as the handle: its name and
    // reference string tie the owner to the port's directory.
    PFILE_OBJECT fo = file->process->fileObject(file->handle);
    if (fo != nullptr && fo->FsContext != nullptr) {
        const auto *port = static_cast<const MidiPort *>(fo->FsContext);
        file->name = reinterpret_cast<const char16_t *>(port->Name);
        file->referenceString = reinterpret_cast<const char16_t *>(port->ReferenceString);
        file->link = PortLink::of(const_cast<MidiPort *>(port));
        if (gState->graph && file->link) {
            for (const PortView &view : listPorts()) {
                if (view.referenceString == file->referenceString) {
                    gState->graph->portAdded(view, file->link);
                }
            }
        }
    }
    file->stopping = &gState->stopping;
    file->start();
    replyOpen(req, fi, std::move(file));
}

void opOpen(fuse_req_t req, fuse_ino_t ino, struct fuse_file_info *fi)
{
    if (!allowed(req)) {
        return;
    }
    if (gState->stopping) {
        fuse_reply_err(req, ENODEV); // ambreld stops: nothing new
        return;
    }
    NodeTable::Node node;
    if (!gState->nodes.get(ino, &node)) {
        fuse_reply_err(req, ENOENT);
        return;
    }
    switch (node.kind) {
    case Kind::Root:
    case Kind::PortsDir:
    case Kind::PortDir:
        fuse_reply_err(req, EISDIR);
        return;
    case Kind::Control:
        openControl(req, node.key, fi);
        return;
    case Kind::Info: {
        PortView p;
        if (!findPortByDirName(node.key, &p)) {
            fuse_reply_err(req, ENOENT);
            return;
        }
        if ((fi->flags & O_ACCMODE) != O_RDONLY) {
            fuse_reply_err(req, EACCES);
            return;
        }
        // The filter is opened as the reader, as any MIDI client would.
        std::shared_ptr<hk::Process> reader = callerProcess(req);
        if (!reader) {
            return;
        }
        auto file = std::make_unique<InfoFile>();
        file->text = infoText(*reader, p);
        replyOpen(req, fi, std::move(file));
        return;
    }
    case Kind::Out:
    case Kind::In: {
        PortView p;
        if (!findPortByDirName(node.key, &p) || !portHas(p, node.kind)) {
            fuse_reply_err(req, ENOENT);
            return;
        }
        int mode = fi->flags & O_ACCMODE;
        if ((node.kind == Kind::Out && mode != O_WRONLY) || (node.kind == Kind::In && mode != O_RDONLY)) {
            fuse_reply_err(req, EACCES);
            return;
        }
        // The port's owner holds its link; a port published by no file of
        // ours (its owner closing right now) is as good as gone.
        std::shared_ptr<PortLink> link = waitForOwner(p);
        if (!link) {
            fuse_reply_err(req, ENOENT);
            return;
        }
        std::shared_ptr<hk::Process> client = callerProcess(req);
        if (!client) {
            return;
        }
        std::unique_ptr<PinFile> pin;
        NTSTATUS status = PinFile::open(std::move(client), p, std::move(link), node.kind == Kind::Out, &pin);
        if (!NT_SUCCESS(status)) {
            fuse_reply_err(req, errnoFromPinStatus(status));
            return;
        }
        replyOpen(req, fi, std::make_shared<PinOpenFile>(node.kind, std::move(pin)));
        return;
    }
    }
}


void opRead(fuse_req_t req, fuse_ino_t, size_t size, off_t off, struct fuse_file_info *fi)
{
    FileUse use(fi->fh);
    OpenFile *f = use.get();
    if (f == nullptr) {
        fuse_reply_err(req, EBADF);
        return;
    }
    bool nonBlocking = (fi->flags & O_NONBLOCK) != 0;
    switch (f->kind) {
    case Kind::Control: {
        auto *o = static_cast<OwnerFile *>(f);
        if (!o->canRead || !o->reader) {
            fuse_reply_err(req, EBADF);
            return;
        }
        o->reader->read(req, size, nonBlocking);
        return;
    }
    case Kind::Info: {
        auto *i = static_cast<InfoFile *>(f);
        if (off < 0 || size_t(off) >= i->text.size()) {
            fuse_reply_buf(req, nullptr, 0);
            return;
        }
        fuse_reply_buf(req, i->text.data() + off, std::min(size, i->text.size() - size_t(off)));
        return;
    }
    case Kind::In:
        static_cast<PinOpenFile *>(f)->pin->read(req, size, nonBlocking);
        return;
    default:
        fuse_reply_err(req, EBADF);
    }
}

void opWrite(fuse_req_t req, fuse_ino_t, const char *buf, size_t size, off_t, struct fuse_file_info *fi)
{
    FileUse use(fi->fh);
    OpenFile *f = use.get();
    if (f == nullptr) {
        fuse_reply_err(req, EBADF);
        return;
    }
    if (f->kind == Kind::Control) {
        auto *o = static_cast<OwnerFile *>(f);
        if (!o->canWrite) {
            fuse_reply_err(req, EBADF);
            return;
        }
        if (size > 0xFFFFFFFFu) {
            fuse_reply_err(req, EMSGSIZE);
            return;
        }
        hk::IoResult r = o->process->write(o->handle, buf, ULONG(size));
        if (!NT_SUCCESS(r.status)) {
            fuse_reply_err(req, errnoFromStatus(r.status));
            return;
        }
        // The driver reports 0 bytes for an accepted write: the block went whole.
        fuse_reply_write(req, size);
        return;
    }
    if (f->kind == Kind::Out) {
        static_cast<PinOpenFile *>(f)->pin->write(req, reinterpret_cast<const std::uint8_t *>(buf), size,
                                                  (fi->flags & O_NONBLOCK) != 0);
        return;
    }
    fuse_reply_err(req, EBADF);
}

void opIoctl(fuse_req_t req, fuse_ino_t, unsigned int cmd, void *, struct fuse_file_info *fi, unsigned flags,
             const void *inBuf, size_t inSize, size_t outSize)
{
    FileUse use(fi->fh);
    OpenFile *f = use.get();
    if (f == nullptr) {
        fuse_reply_err(req, EBADF);
        return;
    }
    if (f->kind != Kind::Control || (flags & FUSE_IOCTL_DIR) != 0) {
        fuse_reply_err(req, ENOTTY);
        return;
    }
    auto *o = static_cast<OwnerFile *>(f);
    if (cmd == AMBREL_IOC_PORT_NAME) {
        struct ambrel_port_name reply = {};
        std::string name = utf16ToUtf8(o->name);
        std::memcpy(reply.name, name.data(), std::min(name.size(), sizeof reply.name - 1));
        fuse_reply_ioctl(req, 0, &reply, std::min(outSize, sizeof reply));
        return;
    }
    if (cmd == AMBREL_IOC_PROCESS_IDS) {
        std::uint64_t ids[16] = {};
        hk::IoResult r = o->process->deviceControl(o->handle, kIoctlProcessIds, nullptr, 0, ids, sizeof ids);
        if (!NT_SUCCESS(r.status)) {
            fuse_reply_err(req, errnoFromStatus(r.status));
            return;
        }
        struct ambrel_process_ids reply = {};
        reply.count = std::min<std::uint64_t>(r.information / 8, 16);
        std::memcpy(reply.ids, ids, reply.count * 8);
        fuse_reply_ioctl(req, 0, &reply, std::min(outSize, sizeof reply));
        return;
    }
    // Any other code goes to the driver as it is, with the buffers its
    // encoding describes; the driver decides (unknown codes: ENOTTY).
    std::vector<std::uint8_t> out(outSize);
    hk::IoResult r = o->process->deviceControl(o->handle, cmd, inBuf, ULONG(inSize), out.data(), ULONG(outSize));
    if (!NT_SUCCESS(r.status)) {
        fuse_reply_err(req, errnoFromStatus(r.status));
        return;
    }
    fuse_reply_ioctl(req, 0, out.data(), std::min<size_t>(outSize, r.information));
}

void opPoll(fuse_req_t req, fuse_ino_t, struct fuse_file_info *fi, struct fuse_pollhandle *ph)
{
    FileUse use(fi->fh);
    OpenFile *f = use.get();
    if (f == nullptr) {
        fuse_reply_err(req, EBADF);
        return;
    }
    unsigned revents = 0;
    if (f->kind == Kind::Control) {
        auto *o = static_cast<OwnerFile *>(f);
        if (o->canWrite) {
            revents |= POLLOUT | POLLWRNORM;
        }
        if (o->canRead && o->reader) {
            revents |= o->reader->poll(ph);
            ph = nullptr;
        }
    } else if (f->kind == Kind::In) {
        revents |= static_cast<PinOpenFile *>(f)->pin->poll(ph);
        ph = nullptr;
    } else if (f->kind == Kind::Out) {
        revents |= static_cast<PinOpenFile *>(f)->pin->poll(ph);
        ph = nullptr;
    } else {
        revents |= POLLIN | POLLRDNORM;
    }
    if (ph != nullptr) {
        fuse_pollhandle_destroy(ph);
    }
    fuse_reply_poll(req, revents);
}

// A writer's close and fsync wait until what it wrote is in the driver, and
// say so when it cannot be.
void opFlush(fuse_req_t req, fuse_ino_t, struct fuse_file_info *fi)
{
    FileUse use(fi->fh);
    OpenFile *f = use.get();
    if (f != nullptr && f->kind == Kind::Out) {
        static_cast<PinOpenFile *>(f)->pin->flush(req);
        return;
    }
    fuse_reply_err(req, 0);
}

void opFsync(fuse_req_t req, fuse_ino_t ino, int, struct fuse_file_info *fi)
{
    opFlush(req, ino, fi);
}

void opRelease(fuse_req_t req, fuse_ino_t, struct fuse_file_info *fi)
{
    // Requests still using the file finish first; the last one frees it.
    if (std::shared_ptr<OpenFile> f = takeFile(fi->fh)) {
        f->close();
    }
    fuse_reply_err(req, 0);
}

void opRefuse(fuse_req_t req)
{
    fuse_reply_err(req, EPERM);
}
void opCreate(fuse_req_t req, fuse_ino_t, const char *, mode_t, struct fuse_file_info *)
{
    opRefuse(req);
}
void opMknod(fuse_req_t req, fuse_ino_t, const char *, mode_t, dev_t)
{
    opRefuse(req);
}
void opMkdir(fuse_req_t req, fuse_ino_t, const char *, mode_t)
{
    opRefuse(req);
}
void opUnlink(fuse_req_t req, fuse_ino_t, const char *)
{
    opRefuse(req);
}
void opRename(fuse_req_t req, fuse_ino_t, const char *, fuse_ino_t, const char *, unsigned int)
{
    opRefuse(req);
}

void opInit(void *, struct fuse_conn_info *conn)
{
    // A write is one driver request: up to 524288 bytes must arrive whole,
    // and a larger one must arrive large enough to be refused.
    conn->max_write = 1u << 20;
    if ((conn->capable & FUSE_CAP_ATOMIC_O_TRUNC) != 0) {
        conn->want |= FUSE_CAP_ATOMIC_O_TRUNC;
    }
    conn->want &= ~unsigned(FUSE_CAP_SPLICE_READ | FUSE_CAP_SPLICE_WRITE | FUSE_CAP_SPLICE_MOVE);
}

// ------------------------------------------------------------------ boot and shutdown
struct HostSystem {
    PDRIVER_OBJECT driver = nullptr;
    std::shared_ptr<hk::DeviceNode> node;

    NTSTATUS boot(const Config &config)
    {
        std::u16string key = hk::serviceKeyPath(kService) + u"\\Configuration";
        hk::registry::createKey(key);
        if (config.maxPorts) {
            hk::registry::setDword(key, u"MaxPorts", *config.maxPorts);
        }
        if (config.sysexSize) {
            hk::registry::setDword(key, u"SysexSize", *config.sysexSize);
        }
        NTSTATUS status = STATUS_UNSUCCESSFUL;
        driver = ambrelhost::loadAmbrel(kService, config.driverImage, &status);
        if (driver == nullptr) {
            return status;
        }
        node = hk::addRootDevice(driver);
        if (node == nullptr || !NT_SUCCESS(node->addDeviceStatus())) {
            status = node ? node->addDeviceStatus() : STATUS_UNSUCCESSFUL;
            node.reset();
            hk::unloadDriver(driver);
            driver = nullptr;
            return status;
        }
        status = node->start();
        if (!NT_SUCCESS(status)) {
            node->remove();
            node.reset();
            hk::unloadDriver(driver);
            driver = nullptr;
        }
        return status;
    }

    // Removal withdraws every port (parked reads end with ENODEV); what the
    // daemon still holds is closed before the driver is unloaded.
    NTSTATUS removeAdapter()
    {
        if (node && !node->removed()) {
            return node->remove();
        }
        return STATUS_SUCCESS;
    }

    NTSTATUS unload()
    {
        node.reset();
        hk::drainIo();
        NTSTATUS status = STATUS_SUCCESS;
        if (driver != nullptr) {
            status = hk::unloadDriver(driver);
            driver = nullptr;
        }
        hk::drainIo();
        return status;
    }
};

std::string trim(const std::string &s)
{
    size_t b = s.find_first_not_of(" \t\r");
    size_t e = s.find_last_not_of(" \t\r");
    return b == std::string::npos ? "" : s.substr(b, e - b + 1);
}

bool parseU32(const std::string &text, std::uint32_t *out)
{
    if (text.empty() || text.size() > 10 || text.find_first_not_of("0123456789") != std::string::npos) {
        return false;
    }
    unsigned long long v = std::stoull(text);
    if (v > 0xFFFFFFFFull) {
        return false;
    }
    *out = std::uint32_t(v);
    return true;
}

} // namespace

bool readConfigFile(const std::string &path, Config *config, std::string *error)
{
    std::ifstream in(path);
    if (!in) {
        *error = "cannot read " + path;
        return false;
    }
    std::string line;
    int number = 0;
    while (std::getline(in, line)) {
        ++number;
        size_t hash = line.find('#');
        if (hash != std::string::npos) {
            line.resize(hash);
        }
        line = trim(line);
        if (line.empty()) {
            continue;
        }
        size_t eq = line.find('=');
        std::string where = path + ":" + std::to_string(number) + ": ";
        if (eq == std::string::npos) {
            *error = where + "expected key = value";
            return false;
        }
        std::string key = trim(line.substr(0, eq)), value = trim(line.substr(eq + 1));
        std::uint32_t v = 0;
        if (key == "mount") {
            if (value.empty()) {
                *error = where + "mount needs a directory";
                return false;
            }
            if (config->mount.empty()) {
                config->mount = value;
            }
        } else if (key == "max-ports" || key == "MaxPorts") {
            if (!parseU32(value, &v)) {
                *error = where + "max-ports needs a number";
                return false;
            }
            if (!config->maxPorts) {
                config->maxPorts = v;
            }
        } else if (key == "sysex-size" || key == "SysexSize") {
            if (!parseU32(value, &v)) {
                *error = where + "sysex-size needs a number";
                return false;
            }
            if (!config->sysexSize) {
                config->sysexSize = v;
            }
        } else if (key == "driver") {
            if (value.empty()) {
                *error = where + "driver needs the path of a driver image";
                return false;
            }
            if (config->driverImage.empty()) {
                config->driverImage = value;
            }
        } else if (key == "group") {
            if (value.empty()) {
                *error = where + "group needs a name";
                return false;
            }
            if (!config->groupName) {
                config->groupName = value;
            }
        } else if (key == "jack-client") {
            if (value.empty()) {
                *error = where + "jack-client needs a name";
                return false;
            }
            if (!config->jackClient) {
                config->jackClient = value;
            }
        } else if (key == "public" || key == "verbose" || key == "jack") {
            if (value != "true" && value != "false" && value != "1" && value != "0") {
                *error = where + key + " is true or false";
                return false;
            }
            bool &flag = key == "public" ? config->everyone : key == "jack" ? config->jack : config->verbose;
            flag = flag || value == "true" || value == "1";
        } else {
            *error = where + "unknown setting \"" + key + "\"";
            return false;
        }
    }
    return true;
}

namespace {

// ------------------------------------------------------------------ stopping
// SIGINT, SIGTERM and SIGHUP start an orderly stop: new files and new bytes
// are refused (ENODEV), what writers were told is written still reaches the
// owners while they read it, and only then does the loop end and every port
// go. An owner that reads nothing for a second is not waited for.
int gStopPipe[2] = {-1, -1};

void onStopSignal(int)
{
    const char c = 's';
    (void)!write(gStopPipe[1], &c, 1);
}

void onWake(int) {}

// Bytes (and messages) still on their way to owners: held by render pins,
// in the ports' FIFOs, read ahead for owners' reads.
std::size_t inFlight()
{
    std::vector<std::shared_ptr<OpenFile>> files;
    {
        std::lock_guard<std::mutex> lock(gState->filesMutex);
        for (auto &entry : gState->files) {
            files.push_back(entry.second);
        }
    }
    std::size_t total = 0;
    for (auto &f : files) {
        if (!f->enter()) {
            continue;
        }
        if (f->kind == Kind::Out) {
            total += static_cast<PinOpenFile *>(f.get())->pin->backlog();
        } else if (f->kind == Kind::Control) {
            auto *o = static_cast<OwnerFile *>(f.get());
            total += (o->link ? o->link->queued() : 0) + (o->reader ? o->reader->buffered() : 0);
        }
        f->leave();
    }
    if (gState->graph) {
        total += gState->graph->inFlight();
    }
    return total;
}

void drainThenExit(struct fuse_session *se, pthread_t loopThread)
{
    gState->stopping = true;
    {
        std::lock_guard<std::mutex> lock(gState->filesMutex);
        for (auto &entry : gState->files) {
            if (entry.second->kind == Kind::Control) {
                if (auto &link = static_cast<OwnerFile *>(entry.second.get())->link) {
                    link->refuseNew();
                }
            }
        }
    }
    using Clock = std::chrono::steady_clock;
    const Clock::time_point start = Clock::now();
    Clock::time_point progress = start;
    std::size_t left = inFlight();
    while (left > 0 && Clock::now() - progress < std::chrono::seconds(1) &&
           Clock::now() - start < std::chrono::seconds(10)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        std::size_t now = inFlight();
        if (now < left) {
            progress = Clock::now();
        }
        left = now;
    }
    if (left > 0) {
        std::fprintf(stderr, "ambreld: stopping with MIDI its owners did not read\n");
    }
    fuse_session_exit(se);
    pthread_kill(loopThread, SIGUSR1); // out of the loop's wait
}

// Our own stop signals instead of libfuse's, which end the loop at once.
bool catchStopSignals()
{
    if (pipe2(gStopPipe, O_CLOEXEC) != 0) {
        return false;
    }
    struct sigaction sa = {};
    sigemptyset(&sa.sa_mask);
    sa.sa_handler = onStopSignal;
    for (int sig : {SIGINT, SIGTERM, SIGHUP}) {
        sigaction(sig, &sa, nullptr);
    }
    sa.sa_handler = onWake; // no SA_RESTART: the loop's wait returns
    sigaction(SIGUSR1, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);
    return true;
}

// The parent that started us in the background learns that we serve; our
// standard streams then go nowhere, as a daemon's do.
void letGoOfTerminal(int readyFd)
{
    (void)!write(readyFd, "1", 1);
    close(readyFd);
    int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    if (null >= 0) {
        dup2(null, STDIN_FILENO);
        dup2(null, STDOUT_FILENO);
        dup2(null, STDERR_FILENO);
        close(null);
    }
}

} // namespace

bool checkConfig(const Config &config, std::string *error)
{
    if (config.maxPorts && (*config.maxPorts < kMinPorts || *config.maxPorts > kMaxPorts)) {
        *error = "max-ports " + std::to_string(*config.maxPorts) + " is outside " + std::to_string(kMinPorts) +
                 ".." + std::to_string(kMaxPorts);
        return false;
    }
    if (config.sysexSize && (*config.sysexSize < kMinSysexSize || *config.sysexSize > kMaxSysexSize)) {
        *error = "sysex-size " + std::to_string(*config.sysexSize) + " is outside " +
                 std::to_string(kMinSysexSize) + ".." + std::to_string(kMaxSysexSize);
        return false;
    }
    if (config.everyone && config.groupName) {
        *error = "--public and --group exclude each other";
        return false;
    }
    return true;
}

int run(const Config &config)
{
    hk::setLogToStderr(config.verbose);
    State state;
    state.everyone = config.everyone;
    if (config.group) {
        state.group = gid_t(*config.group);
    }
    gState = &state;

    struct fuse_lowlevel_ops ops {};
    ops.init = opInit;
    ops.lookup = opLookup;
    ops.forget = opForget;
    ops.forget_multi = opForgetMulti;
    ops.getattr = opGetattr;
    ops.setattr = opSetattr;
    ops.opendir = opOpendir;
    ops.readdir = opReaddir;
    ops.releasedir = opReleasedir;
    ops.open = opOpen;
    ops.read = opRead;
    ops.write = opWrite;
    ops.ioctl = opIoctl;
    ops.poll = opPoll;
    ops.flush = opFlush;
    ops.fsync = opFsync;
    ops.release = opRelease;
    ops.create = opCreate;
    ops.mknod = opMknod;
    ops.mkdir = opMkdir;
    ops.unlink = opUnlink;
    ops.rmdir = opUnlink;
    ops.rename = opRename;

    std::vector<std::string> argStorage{"ambreld", "-o", "fsname=ambrel,subtype=ambrel"};
    if (geteuid() == 0) {
        // Other users reach the mount; which of them may use it is the
        // daemon's own check (allowed()).
        argStorage.back() += ",allow_other";
    }
    if (config.debugFuse) {
        argStorage.push_back("-d");
    }
    std::vector<char *> argv;
    for (std::string &a : argStorage) {
        argv.push_back(a.data());
    }
    struct fuse_args args = FUSE_ARGS_INIT(int(argv.size()), argv.data());

    // A daemon in the background was forked before this (main.cpp): the
    // host kernel's threads start here, in the process that serves.
    HostSystem system;
    bool booted = false;
    int rc = 1;
    struct fuse_session *se = fuse_session_new(&args, &ops, sizeof ops, nullptr);
    if (se == nullptr) {
        std::fprintf(stderr, "ambreld: cannot start a FUSE session\n");
    } else {
        if (!catchStopSignals()) {
            std::fprintf(stderr, "ambreld: cannot install signal handlers\n");
        } else {
            if (fuse_session_mount(se, config.mount.c_str()) != 0) {
                std::fprintf(stderr, "ambreld: cannot mount on %s (is /dev/fuse there, and are you root?)\n",
                             config.mount.c_str());
            } else {
                NTSTATUS status = system.boot(config);
                booted = NT_SUCCESS(status);
                if (!booted) {
                    std::fprintf(stderr, "ambreld: the driver%s%s did not start (status 0x%08X)\n",
                                 config.driverImage.empty() ? "" : " ", config.driverImage.c_str(), unsigned(status));
                } else {
                    std::fprintf(stderr, "ambreld: serving Ambrel on %s (pid %d); stop it with 'ambreld --stop %s'\n",
                                 config.mount.c_str(), int(getpid()), config.mount.c_str());
                    if (config.jack) {
                        JackSettings jack;
                        jack.clientName = config.jackClient.value_or("ambrel");
                        jack.verbose = config.verbose;
                        state.graph = startJackGraph(jack, [] { return gState->processes.get(std::uint64_t(getpid())); });
                    }
                    if (config.readyFd >= 0) {
                        letGoOfTerminal(config.readyFd);
                    }
                    struct fuse_loop_config *loop = fuse_loop_cfg_create();
                    fuse_loop_cfg_set_max_threads(loop, 64);
                    fuse_loop_cfg_set_idle_threads(loop, 8);
                    std::thread stopper([se, loopThread = pthread_self()] {
                        char c = 0;
                        while (read(gStopPipe[0], &c, 1) < 0 && errno == EINTR) {
                        }
                        if (c == 's') {
                            drainThenExit(se, loopThread);
                        }
                    });
                    int res = fuse_session_loop_mt(se, loop);
                    // Ended by an unmount from outside: the stopper goes too.
                    const char quit = 'q';
                    (void)!write(gStopPipe[1], &quit, 1);
                    stopper.join();
                    rc = res == 0 || res == SIGINT || res == SIGTERM || res == SIGHUP ? 0 : 1;
                    fuse_loop_cfg_destroy(loop);
                }
                // Every port is withdrawn before the mount goes: the files
                // the kernel still has open here are closed in the host
                // kernel, clients' pins first, then the owners' handles
                // (their waiting reads end, their ports are withdrawn); the
                // adapter's removal then finds nothing left to tear down.
                // The graph's pins close first: it leaves JACK and hears
                // of no port going any more.
                if (state.graph) {
                    state.graph->stop();
                    state.graph.reset();
                }
                std::vector<std::shared_ptr<OpenFile>> left;
                state.stopping = true;
                {
                    std::lock_guard<std::mutex> lock(state.filesMutex);
                    for (auto &entry : state.files) {
                        left.push_back(std::move(entry.second));
                    }
                    state.files.clear();
                }
                // Pins hear first that their ports go, so none waits to hand
                // on bytes that no owner will read.
                for (auto &f : left) {
                    if (f->kind == Kind::Control) {
                        if (auto link = static_cast<OwnerFile *>(f.get())->link) {
                            link->withdraw(ENODEV);
                        }
                    }
                }
                std::stable_partition(left.begin(), left.end(), [](const std::shared_ptr<OpenFile> &f) {
                    return f->kind != Kind::Control;
                });
                for (auto &f : left) {
                    f->close();
                }
                left.clear();
                // Nothing of ours is open any more, so a veto means a handle
                // the daemon lost track of: said, and the exit code shows it.
                if (NTSTATUS removal = system.removeAdapter(); !NT_SUCCESS(removal)) {
                    std::fprintf(stderr, "ambreld: the adapter was not removed (status 0x%08X)\n", unsigned(removal));
                    rc = 1;
                }
                fuse_session_unmount(se);
                std::fprintf(stderr, "ambreld: unmounted %s\n", config.mount.c_str());
            }
            for (int fd : gStopPipe) {
                close(fd);
            }
        }
        fuse_session_destroy(se);
    }
    fuse_opt_free_args(&args);
    if (booted) {
        NTSTATUS status = system.unload();
        if (!NT_SUCCESS(status)) {
            std::fprintf(stderr, "ambreld: the driver did not unload (status 0x%08X)\n", unsigned(status));
            rc = 1;
        }
        // The daemon checks itself as the tests check the driver: anything
        // the host kernel still holds now is a leak and stops the process.
        hk::verifyIoQuiescent();
        hk::verifyQuiescent();
    }
    gState = nullptr;
    return rc;
}

} // namespace ambreld
