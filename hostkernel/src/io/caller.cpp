// The caller API: processes, handles and file objects, and the requests they
// issue (create, read, write, device control, cleanup, close, cancel).
//
// Reference counting follows Windows: a handle holds its file object, and so
// does each outstanding request; IRP_MJ_CLEANUP goes out when the last handle
// is closed, IRP_MJ_CLOSE when the last reference of any kind goes. A file
// object holds its device object (which outlives IoDeleteDevice while it is
// referenced) and its related file object.
#include <algorithm>
#include <stdexcept>

#include "internal.h"

namespace hostkernel::detail {

namespace {

std::mutex gFilesMutex;
std::set<FileRecord *> gFiles;
std::mutex gProcessIdsMutex;
std::set<std::uint64_t> gProcessIds;

// The rights a create asks for, with generic rights mapped as the I/O
// manager maps them for files.
ACCESS_MASK mapGenericFileAccess(ACCESS_MASK access)
{
    ACCESS_MASK mapped = access & ~(GENERIC_READ | GENERIC_WRITE | GENERIC_EXECUTE | GENERIC_ALL | MAXIMUM_ALLOWED);
    if (access & GENERIC_READ) {
        mapped |= FILE_GENERIC_READ;
    }
    if (access & GENERIC_WRITE) {
        mapped |= FILE_GENERIC_WRITE;
    }
    if (access & GENERIC_EXECUTE) {
        mapped |= FILE_GENERIC_EXECUTE;
    }
    if (access & (GENERIC_ALL | MAXIMUM_ALLOWED)) {
        mapped |= FILE_ALL_ACCESS;
    }
    return mapped;
}

// The open path as the object manager gets it from a Win32 caller.
std::u16string ntPath(std::u16string_view path)
{
    if (path.size() >= 4 && path[0] == u'\\' && path[1] == u'\\' && (path[2] == u'?' || path[2] == u'.') &&
        path[3] == u'\\') {
        return u"\\??\\" + std::u16string(path.substr(4));
    }
    return std::u16string(path);
}

void freeFile(FileRecord *file)
{
    {
        std::lock_guard<std::mutex> lock(gFilesMutex);
        gFiles.erase(file);
    }
    FileRecord *related = file->related;
    std::shared_ptr<DeviceNodeState> removal;
    {
        std::lock_guard<std::mutex> lock(objectsMutex());
        DeviceRecord *device = file->device;
        device->openFiles--;
        device->object.ReferenceCount = device->openFiles;
        removal = takeDeferredRemovalLocked(device);
        maybeFreeDeviceLocked(device);
    }
    file->magic = 0;
    delete file;
    if (related != nullptr) {
        releaseFile(related, KeGetCurrentIrql() == PASSIVE_LEVEL);
    }
    // A surprise-removed stack gets its IRP_MN_REMOVE_DEVICE from the close
    // of its last file object, in the closer's thread (records are only
    // freed at PASSIVE_LEVEL: inline by a caller, else on the worker).
    if (removal) {
        finishDeferredRemoval(removal);
    }
}

void closeAndFree(FileRecord *file)
{
    if (file->created) {
        sendFileRequest(file, IRP_MJ_CLOSE, false);
    }
    freeFile(file);
}

// A fresh packet for the top of the file's stack, from the calling thread.
std::shared_ptr<IrpRecord> newFileIrp(FileRecord *file, UCHAR major, PDEVICE_OBJECT *top, IrpOrigin origin)
{
    {
        std::lock_guard<std::mutex> lock(objectsMutex());
        *top = &topOfStackLocked(file->device)->object;
    }
    auto record = std::make_shared<IrpRecord>((*top)->StackSize, origin);
    record->thread = currentThread();
    record->irp->Tail.Overlay.Thread = record->thread.get();
    record->irp->Tail.Overlay.OriginalFileObject = &file->object;
    record->irp->RequestorMode = origin == IrpOrigin::Caller ? UserMode : KernelMode;
    PIO_STACK_LOCATION location = record->firstLocation();
    location->MajorFunction = major;
    location->FileObject = &file->object;
    return record;
}

// The file object behind a handle, with a reference for the caller.
FileRecord *referenceHandle(ProcessState &process, Handle handle)
{
    std::lock_guard<std::mutex> lock(process.mutex);
    auto it = process.handles.find(handle);
    if (it == process.handles.end()) {
        return nullptr;
    }
    it->second->pointerCount++;
    return it->second;
}

void requireCaller(const char *what)
{
    requirePassive(what);
}

} // namespace

FileRecord *fileRecordOf(PFILE_OBJECT file)
{
    if (file == nullptr || file->Type != IO_TYPE_FILE) {
        return nullptr;
    }
    auto *record = static_cast<FileRecord *>(file->FileObjectExtension);
    return record != nullptr && record->magic == kFileMagic ? record : nullptr;
}

size_t liveFileCount()
{
    std::lock_guard<std::mutex> lock(gFilesMutex);
    return gFiles.size();
}

void releaseFile(FileRecord *file, bool inlineClose)
{
    if (--file->pointerCount != 0) {
        return;
    }
    if (inlineClose) {
        closeAndFree(file);
    } else {
        postToWorker([file] { closeAndFree(file); });
    }
}

IoResult sendFileRequest(FileRecord *file, UCHAR major, bool takeReference)
{
    PDEVICE_OBJECT top = nullptr;
    auto record = newFileIrp(file, major, &top, IrpOrigin::Internal);
    if (major == IRP_MJ_CLOSE) {
        record->irp->Flags |= IRP_CLOSE_OPERATION | IRP_SYNCHRONOUS_API;
    }
    if (takeReference) {
        file->pointerCount++;
        record->file = file;
    }
    issueIrp(record, top);
    return waitIrp(*record);
}

} // namespace hostkernel::detail

using namespace hostkernel::detail;

namespace hostkernel {

// ------------------------------------------------------------------ Request
Request::Request(std::shared_ptr<detail::IrpRecord> record) : record_(std::move(record)) {}

Request::~Request() = default;

bool Request::done() const
{
    std::lock_guard<std::mutex> lock(record_->mutex);
    return record_->completed;
}

bool Request::wait(std::chrono::milliseconds timeout) const
{
    std::unique_lock<std::mutex> lock(record_->mutex);
    return record_->cv.wait_for(lock, timeout, [this] { return record_->completed; });
}

void Request::wait() const
{
    std::unique_lock<std::mutex> lock(record_->mutex);
    record_->cv.wait(lock, [this] { return record_->completed; });
}

IoResult Request::result() const
{
    std::lock_guard<std::mutex> lock(record_->mutex);
    return record_->result;
}

const std::vector<std::uint8_t> &Request::output() const
{
    return record_->output;
}

NTSTATUS Request::cancel()
{
    requireCaller("Request::cancel");
    if (done()) {
        return STATUS_NOT_FOUND;
    }
    IoCancelIrp(record_->irp);
    return STATUS_SUCCESS;
}

PIRP Request::irp() const
{
    return done() ? nullptr : record_->irp;
}

// ------------------------------------------------------------------ Process
namespace {

// Fills in a read or write packet's buffers as the top device's buffering
// method asks and issues it; `data` is the caller's buffer.
NTSTATUS issueTransfer(const std::shared_ptr<IrpRecord> &record, PDEVICE_OBJECT top, UCHAR major, void *data,
                       ULONG length)
{
    PIRP irp = record->irp;
    PIO_STACK_LOCATION location = record->firstLocation();
    location->Parameters.Read.Length = length;
    irp->UserBuffer = data;
    if (top->Flags & DO_BUFFERED_IO) {
        if (length > 0) {
            record->systemBuffer.assign(length, 0);
            if (major == IRP_MJ_WRITE) {
                memcpy(record->systemBuffer.data(), data, length);
            } else {
                record->copyBackTo = data;
                record->copyBackLength = length;
                irp->Flags |= IRP_INPUT_OPERATION;
            }
            irp->AssociatedIrp.SystemBuffer = record->systemBuffer.data();
            irp->Flags |= IRP_BUFFERED_IO | IRP_DEALLOCATE_BUFFER;
        }
    } else if (top->Flags & DO_DIRECT_IO) {
        if (length > 0) {
            MDL &mdl = record->mdl;
            mdl.Size = sizeof(MDL);
            mdl.MdlFlags = MDL_PAGES_LOCKED; // probed and locked, not yet mapped into system space
            mdl.Process = record->thread->process;
            mdl.MappedSystemVa = nullptr;
            mdl.StartVa = reinterpret_cast<PVOID>(ULONG_PTR(data) & ~ULONG_PTR(0xFFF));
            mdl.ByteOffset = ULONG(ULONG_PTR(data) & 0xFFF);
            mdl.ByteCount = length;
            irp->MdlAddress = &mdl;
        }
    }
    irp->Flags |= major == IRP_MJ_READ ? IRP_READ_OPERATION : IRP_WRITE_OPERATION;
    return issueIrp(record, top);
}

// Fills in a device-control packet as the code's transfer type asks.
NTSTATUS issueControl(const std::shared_ptr<IrpRecord> &record, PDEVICE_OBJECT top, UCHAR major, ULONG code,
                      void *input, ULONG inputLength, void *output, ULONG outputLength)
{
    PIRP irp = record->irp;
    PIO_STACK_LOCATION location = record->firstLocation();
    location->Parameters.DeviceIoControl.IoControlCode = code;
    location->Parameters.DeviceIoControl.InputBufferLength = inputLength;
    location->Parameters.DeviceIoControl.OutputBufferLength = outputLength;
    irp->UserBuffer = output;
    ULONG method = METHOD_FROM_CTL_CODE(code);
    if (major == IRP_MJ_INTERNAL_DEVICE_CONTROL || method == METHOD_NEITHER) {
        location->Parameters.DeviceIoControl.Type3InputBuffer = input;
    } else if (method == METHOD_BUFFERED) {
        ULONG size = std::max(inputLength, outputLength);
        if (size > 0) {
            record->systemBuffer.assign(size, 0);
            if (inputLength > 0) {
                memcpy(record->systemBuffer.data(), input, inputLength);
            }
            irp->AssociatedIrp.SystemBuffer = record->systemBuffer.data();
            irp->Flags |= IRP_BUFFERED_IO | IRP_DEALLOCATE_BUFFER;
            if (outputLength > 0) {
                record->copyBackTo = output;
                record->copyBackLength = outputLength;
                irp->Flags |= IRP_INPUT_OPERATION;
            }
        }
    } else {
        if (inputLength > 0) {
            record->systemBuffer.assign(static_cast<std::uint8_t *>(input),
                                        static_cast<std::uint8_t *>(input) + inputLength);
            irp->AssociatedIrp.SystemBuffer = record->systemBuffer.data();
            irp->Flags |= IRP_BUFFERED_IO | IRP_DEALLOCATE_BUFFER;
        }
        if (outputLength > 0) {
            MDL &mdl = record->mdl;
            mdl.Size = sizeof(MDL);
            mdl.MdlFlags = MDL_PAGES_LOCKED; // probed and locked, not yet mapped into system space
            mdl.Process = record->thread->process;
            mdl.MappedSystemVa = nullptr;
            mdl.StartVa = reinterpret_cast<PVOID>(ULONG_PTR(output) & ~ULONG_PTR(0xFFF));
            mdl.ByteOffset = ULONG(ULONG_PTR(output) & 0xFFF);
            mdl.ByteCount = outputLength;
            irp->MdlAddress = &mdl;
        }
    }
    return issueIrp(record, top);
}

// The access a request needs from the handle, or 0.
ACCESS_MASK requiredAccess(UCHAR major, ULONG code)
{
    switch (major) {
    case IRP_MJ_READ:
        return FILE_READ_DATA;
    case IRP_MJ_WRITE:
        return FILE_WRITE_DATA;
    case IRP_MJ_DEVICE_CONTROL: {
        ULONG access = (code >> 14) & 3;
        return ((access & FILE_READ_ACCESS) ? FILE_READ_DATA : 0) | ((access & FILE_WRITE_ACCESS) ? FILE_WRITE_DATA : 0);
    }
    default:
        return 0;
    }
}

std::shared_ptr<Request> finishedRequest(NTSTATUS status)
{
    auto record = std::make_shared<IrpRecord>(1, IrpOrigin::Caller);
    record->completed = true;
    record->finished = true;
    record->result.status = status;
    record->result.dispatchStatus = status;
    return std::make_shared<Request>(std::move(record));
}

IoResult failed(NTSTATUS status)
{
    IoResult result;
    result.status = status;
    result.dispatchStatus = status;
    return result;
}

// Shared path of every data request: handle lookup, access check, a packet
// holding a reference to the file, and `fill` to set it up and issue it.
template <typename Fill>
std::shared_ptr<IrpRecord> startRequest(const std::shared_ptr<ProcessState> &process, Handle handle, UCHAR major,
                                        ULONG code, NTSTATUS *status, Fill fill)
{
    FileRecord *file = referenceHandle(*process, handle);
    if (file == nullptr) {
        *status = STATUS_INVALID_HANDLE;
        return nullptr;
    }
    ACCESS_MASK needed = requiredAccess(major, code);
    if ((file->granted & needed) != needed) {
        releaseFile(file, true);
        *status = STATUS_ACCESS_DENIED;
        return nullptr;
    }
    PDEVICE_OBJECT top = nullptr;
    auto record = newFileIrp(file, major, &top, IrpOrigin::Caller);
    record->process = process;
    record->file = file; // the reference taken above
    *status = fill(record, top);
    return record;
}

} // namespace

Process::Process(std::uint64_t id) : state_(std::make_shared<ProcessState>())
{
    {
        std::lock_guard<std::mutex> lock(gProcessIdsMutex);
        if (id == 0 || !gProcessIds.insert(id).second) {
            throw std::invalid_argument("hostkernel::Process: id " + std::to_string(id) +
                                        " is 0 or belongs to a live process");
        }
    }
    state_->eprocess.id = id;
}

Process::~Process()
{
    requireCaller("Process exit");
    ActingAs acting(state_);
    // Exit cancels the process's requests first, then closes its handles.
    std::vector<Handle> handles;
    {
        std::lock_guard<std::mutex> lock(state_->mutex);
        for (auto &[handle, file] : state_->handles) {
            (void)file;
            handles.push_back(handle);
        }
    }
    std::sort(handles.begin(), handles.end());
    for (Handle handle : handles) {
        cancelIo(handle);
    }
    for (Handle handle : handles) {
        close(handle);
    }
    std::lock_guard<std::mutex> lock(gProcessIdsMutex);
    gProcessIds.erase(state_->eprocess.id);
}

std::uint64_t Process::id() const
{
    return state_->eprocess.id;
}

PEPROCESS Process::object() const
{
    return &state_->eprocess;
}

namespace {

NTSTATUS openFile(const std::shared_ptr<ProcessState> &process, FileRecord *relatedFile, DeviceRecord *device,
                  std::u16string name, ACCESS_MASK desiredAccess, const OpenOptions &options, Handle *handle)
{
    auto *file = new FileRecord;
    file->name = std::move(name);
    file->device = device; // its openFiles count was taken by the caller
    file->related = relatedFile;
    file->granted = mapGenericFileAccess(desiredAccess);
    FILE_OBJECT &object = file->object;
    object.Type = IO_TYPE_FILE;
    object.Size = sizeof(FILE_OBJECT);
    object.DeviceObject = &device->object;
    object.RelatedFileObject = relatedFile != nullptr ? &relatedFile->object : nullptr;
    object.FileObjectExtension = file;
    if (!file->name.empty()) {
        object.FileName.Buffer = reinterpret_cast<PWSTR>(file->name.data());
        object.FileName.Length = USHORT(std::min<size_t>(file->name.size() * sizeof(WCHAR), 0xFFFE));
        object.FileName.MaximumLength = object.FileName.Length;
    }
    InitializeListHead(&object.IrpList);
    KeInitializeEvent(&object.Lock, SynchronizationEvent, FALSE);
    KeInitializeEvent(&object.Event, NotificationEvent, FALSE);
    {
        std::lock_guard<std::mutex> lock(gFilesMutex);
        gFiles.insert(file);
    }

    PDEVICE_OBJECT top = nullptr;
    auto record = newFileIrp(file, IRP_MJ_CREATE, &top, IrpOrigin::Caller);
    record->process = process;
    record->securityContext.DesiredAccess = file->granted;
    record->securityContext.FullCreateOptions = options.createOptions;
    PIO_STACK_LOCATION location = record->firstLocation();
    location->Parameters.Create.SecurityContext = &record->securityContext;
    location->Parameters.Create.Options = (options.disposition << 24) | (options.createOptions & 0x00FFFFFF);
    location->Parameters.Create.ShareAccess = USHORT(options.shareAccess);
    location->Parameters.Create.FileAttributes = options.fileAttributes;
    record->irp->Flags |= IRP_CREATE_OPERATION | IRP_SYNCHRONOUS_API;
    file->pointerCount++; // the create packet's own reference
    record->file = file;
    issueIrp(record, top);
    IoResult result = waitIrp(*record);
    if (!NT_SUCCESS(result.status) || result.status == STATUS_PENDING) {
        // A failed create owes the driver neither cleanup nor close.
        releaseFile(file, true);
        return result.status == STATUS_PENDING ? STATUS_UNSUCCESSFUL : result.status;
    }
    file->created = true;
    object.ReadAccess = (file->granted & FILE_READ_DATA) != 0;
    object.WriteAccess = (file->granted & (FILE_WRITE_DATA | FILE_APPEND_DATA)) != 0;
    {
        std::lock_guard<std::mutex> lock(objectsMutex());
        device->object.ReferenceCount = device->openFiles;
    }
    file->handleCount = 1;
    std::lock_guard<std::mutex> lock(process->mutex);
    Handle h = process->nextHandle;
    process->nextHandle += 4;
    process->handles[h] = file; // the record's initial reference becomes the handle's
    *handle = h;
    return result.status;
}

} // namespace

NTSTATUS Process::open(std::u16string_view path, ACCESS_MASK desiredAccess, Handle *handle, const OpenOptions &options)
{
    requireCaller("Process::open");
    if (handle == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    *handle = 0;
    ActingAs acting(state_);
    DeviceRecord *device = nullptr;
    std::u16string remainder;
    {
        std::lock_guard<std::mutex> lock(objectsMutex());
        ResolvedName resolved;
        NTSTATUS status = resolveLocked(ntPath(path), &resolved);
        if (!NT_SUCCESS(status)) {
            return status;
        }
        device = resolved.device;
        if (device->deleted || (device->object.Flags & DO_DEVICE_INITIALIZING) != 0) {
            return STATUS_NO_SUCH_DEVICE;
        }
        if (stackRemovalStartedLocked(device)) {
            return STATUS_DELETE_PENDING;
        }
        DeviceRecord *top = topOfStackLocked(device);
        if ((device->object.Flags & DO_EXCLUSIVE) != 0 && device->openFiles > 0) {
            return STATUS_ACCESS_DENIED;
        }
        if ((top->object.Flags & DO_DEVICE_INITIALIZING) != 0) {
            return STATUS_NO_SUCH_DEVICE;
        }
        device->openFiles++;
        remainder = std::move(resolved.remainder);
    }
    return openFile(state_, nullptr, device, std::move(remainder), desiredAccess, options, handle);
}

NTSTATUS Process::openRelative(Handle related, std::u16string_view name, ACCESS_MASK desiredAccess, Handle *handle,
                               const OpenOptions &options)
{
    requireCaller("Process::openRelative");
    if (handle == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    *handle = 0;
    ActingAs acting(state_);
    FileRecord *relatedFile = referenceHandle(*state_, related); // held by the new file object
    if (relatedFile == nullptr) {
        return STATUS_INVALID_HANDLE;
    }
    DeviceRecord *device = relatedFile->device;
    NTSTATUS refused = STATUS_SUCCESS;
    {
        std::lock_guard<std::mutex> lock(objectsMutex());
        if (device->deleted) {
            refused = STATUS_NO_SUCH_DEVICE;
        } else if (stackRemovalStartedLocked(device)) {
            refused = STATUS_DELETE_PENDING;
        } else {
            device->openFiles++;
        }
    }
    if (!NT_SUCCESS(refused)) {
        releaseFile(relatedFile, true);
        return refused;
    }
    return openFile(state_, relatedFile, device, std::u16string(name), desiredAccess, options, handle);
}

NTSTATUS Process::duplicate(Handle handle, Handle *copy)
{
    if (copy == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    std::lock_guard<std::mutex> lock(state_->mutex);
    auto it = state_->handles.find(handle);
    if (it == state_->handles.end()) {
        return STATUS_INVALID_HANDLE;
    }
    FileRecord *file = it->second;
    file->pointerCount++;
    file->handleCount++;
    Handle h = state_->nextHandle;
    state_->nextHandle += 4;
    state_->handles[h] = file;
    *copy = h;
    return STATUS_SUCCESS;
}

NTSTATUS Process::close(Handle handle)
{
    requireCaller("Process::close");
    ActingAs acting(state_);
    FileRecord *file = nullptr;
    {
        std::lock_guard<std::mutex> lock(state_->mutex);
        auto it = state_->handles.find(handle);
        if (it == state_->handles.end()) {
            return STATUS_INVALID_HANDLE;
        }
        file = it->second;
        state_->handles.erase(it);
    }
    if (--file->handleCount == 0) {
        sendFileRequest(file, IRP_MJ_CLEANUP, true);
    }
    releaseFile(file, true);
    return STATUS_SUCCESS;
}

IoResult Process::read(Handle handle, void *buffer, ULONG length)
{
    requireCaller("Process::read");
    ActingAs acting(state_);
    NTSTATUS status;
    auto record = startRequest(state_, handle, IRP_MJ_READ, 0, &status, [&](auto &r, PDEVICE_OBJECT top) {
        return issueTransfer(r, top, IRP_MJ_READ, buffer, length);
    });
    return record ? waitIrp(*record) : failed(status);
}

IoResult Process::write(Handle handle, const void *buffer, ULONG length)
{
    requireCaller("Process::write");
    ActingAs acting(state_);
    NTSTATUS status;
    auto record = startRequest(state_, handle, IRP_MJ_WRITE, 0, &status, [&](auto &r, PDEVICE_OBJECT top) {
        return issueTransfer(r, top, IRP_MJ_WRITE, const_cast<void *>(buffer), length);
    });
    return record ? waitIrp(*record) : failed(status);
}

IoResult Process::deviceControl(Handle handle, ULONG code, const void *input, ULONG inputLength, void *output,
                                ULONG outputLength)
{
    requireCaller("Process::deviceControl");
    ActingAs acting(state_);
    NTSTATUS status;
    auto record = startRequest(state_, handle, IRP_MJ_DEVICE_CONTROL, code, &status, [&](auto &r, PDEVICE_OBJECT top) {
        return issueControl(r, top, IRP_MJ_DEVICE_CONTROL, code, const_cast<void *>(input), inputLength, output,
                            outputLength);
    });
    return record ? waitIrp(*record) : failed(status);
}

IoResult Process::internalDeviceControl(Handle handle, ULONG code, void *input, ULONG inputLength, void *output,
                                        ULONG outputLength)
{
    requireCaller("Process::internalDeviceControl");
    ActingAs acting(state_);
    NTSTATUS status;
    auto record = startRequest(state_, handle, IRP_MJ_INTERNAL_DEVICE_CONTROL, code, &status,
                               [&](auto &r, PDEVICE_OBJECT top) {
                                   r->irp->RequestorMode = KernelMode;
                                   return issueControl(r, top, IRP_MJ_INTERNAL_DEVICE_CONTROL, code, input,
                                                       inputLength, output, outputLength);
                               });
    return record ? waitIrp(*record) : failed(status);
}

IoResult Process::request(Handle handle, UCHAR majorFunction)
{
    requireCaller("Process::request");
    if (majorFunction > IRP_MJ_MAXIMUM_FUNCTION || majorFunction == IRP_MJ_CREATE || majorFunction == IRP_MJ_CLOSE ||
        majorFunction == IRP_MJ_CLEANUP) {
        return failed(STATUS_INVALID_PARAMETER);
    }
    ActingAs acting(state_);
    NTSTATUS status;
    auto record = startRequest(state_, handle, majorFunction, 0, &status,
                               [&](auto &r, PDEVICE_OBJECT top) { return issueIrp(r, top); });
    return record ? waitIrp(*record) : failed(status);
}

std::shared_ptr<Request> Process::readAsync(Handle handle, ULONG length)
{
    requireCaller("Process::readAsync");
    ActingAs acting(state_);
    NTSTATUS status;
    auto record = startRequest(state_, handle, IRP_MJ_READ, 0, &status, [&](auto &r, PDEVICE_OBJECT top) {
        r->output.assign(length, 0);
        return issueTransfer(r, top, IRP_MJ_READ, r->output.data(), length);
    });
    return record ? std::make_shared<Request>(std::move(record)) : finishedRequest(status);
}

std::shared_ptr<Request> Process::writeAsync(Handle handle, const void *data, ULONG length)
{
    requireCaller("Process::writeAsync");
    ActingAs acting(state_);
    NTSTATUS status;
    auto record = startRequest(state_, handle, IRP_MJ_WRITE, 0, &status, [&](auto &r, PDEVICE_OBJECT top) {
        r->input.assign(static_cast<const std::uint8_t *>(data), static_cast<const std::uint8_t *>(data) + length);
        return issueTransfer(r, top, IRP_MJ_WRITE, r->input.data(), length);
    });
    return record ? std::make_shared<Request>(std::move(record)) : finishedRequest(status);
}

std::shared_ptr<Request> Process::deviceControlAsync(Handle handle, ULONG code, const void *input, ULONG inputLength,
                                                     ULONG outputLength)
{
    requireCaller("Process::deviceControlAsync");
    ActingAs acting(state_);
    NTSTATUS status;
    auto record = startRequest(state_, handle, IRP_MJ_DEVICE_CONTROL, code, &status, [&](auto &r, PDEVICE_OBJECT top) {
        r->input.assign(static_cast<const std::uint8_t *>(input),
                        static_cast<const std::uint8_t *>(input) + inputLength);
        r->output.assign(outputLength, 0);
        return issueControl(r, top, IRP_MJ_DEVICE_CONTROL, code, r->input.data(), inputLength, r->output.data(),
                            outputLength);
    });
    return record ? std::make_shared<Request>(std::move(record)) : finishedRequest(status);
}

NTSTATUS Process::cancelIo(Handle handle)
{
    requireCaller("Process::cancelIo");
    FileRecord *file = referenceHandle(*state_, handle);
    if (file == nullptr) {
        return STATUS_INVALID_HANDLE;
    }
    std::vector<std::shared_ptr<IrpRecord>> mine;
    {
        std::lock_guard<std::mutex> lock(file->mutex);
        for (IrpRecord *record : file->outstanding) {
            if (record->process == state_ && !record->finished) {
                mine.push_back(record->shared_from_this());
            }
        }
    }
    for (auto &record : mine) {
        IoCancelIrp(record->irp);
    }
    releaseFile(file, true);
    return mine.empty() ? STATUS_NOT_FOUND : STATUS_SUCCESS;
}

PFILE_OBJECT Process::fileObject(Handle handle) const
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    auto it = state_->handles.find(handle);
    return it == state_->handles.end() ? nullptr : &it->second->object;
}

size_t Process::handleCount() const
{
    std::lock_guard<std::mutex> lock(state_->mutex);
    return state_->handles.size();
}

} // namespace hostkernel

// ------------------------------------------------------------------ threads and processes
PETHREAD PsGetCurrentThread(void)
{
    return currentThread().get();
}

PEPROCESS IoThreadToProcess(PETHREAD Thread)
{
    return Thread != nullptr ? Thread->process : nullptr;
}

PEPROCESS PsGetCurrentProcess(void)
{
    return currentThread()->process;
}

HANDLE PsGetProcessId(PEPROCESS Process)
{
    return Process != nullptr ? reinterpret_cast<HANDLE>(ULONG_PTR(Process->id)) : nullptr;
}

HANDLE PsGetCurrentProcessId(void)
{
    return PsGetProcessId(PsGetCurrentProcess());
}

HANDLE PsGetCurrentThreadId(void)
{
    return reinterpret_cast<HANDLE>(ULONG_PTR(currentThread()->threadId));
}
