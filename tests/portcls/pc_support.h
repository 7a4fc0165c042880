// A small DMus miniport of the tests' own and a driver that publishes it
// through the host's portcls, so that the framework can be driven from the
// client side (the MIDI client API) and watched from the miniport side.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <hostkernel/executive.h>
#include <hostkernel/io.h>
#include <hostkernel/midiclient.h>
#include <hostkernel/pnp.h>
#include <hostkernel/portcls.h>
#include <hostkernel/registry.h>

#include "eventually.h"

namespace pctest {

namespace hk = hostkernel;
using Bytes = std::vector<uint8_t>;

// Pins of the test filter.
constexpr ULONG kRenderPin = 0;  // IN, MIDI, 2 per filter, 3 per sub-device
constexpr ULONG kCapturePin = 1; // OUT, MIDI and DirectMusic
constexpr ULONG kBridgePin = 2;  // not instantiable
// The test property set: id 1 (node, GET|SET|BASICSUPPORT), 2 (node, GET
// only: basic support left to the framework), 3 (filter, GET|BASICSUPPORT),
// 4 (render pin, GET).
extern const GUID kTestSet;

// What the property handler saw last.
struct SeenRequest {
    PUNKNOWN major = nullptr, minor = nullptr;
    ULONG node = 0, verb = 0, instanceSize = 0, valueSize = 0;
    Bytes instance;
    KIRQL irql = 0;
};

class TestMiniport;

class TestStream final : public IMXF {
public:
    TestStream(TestMiniport *miniport, bool capture, PAllocatorMXF allocator);
    STDMETHODIMP_(NTSTATUS) QueryInterface(REFIID iid, PVOID *object) override;
    STDMETHODIMP_(ULONG) AddRef() override { return ULONG(++refs_); }
    STDMETHODIMP_(ULONG) Release() override;
    STDMETHODIMP_(NTSTATUS) SetState(KSSTATE state) override;
    STDMETHODIMP_(NTSTATUS) PutMessage(PDMUS_KERNEL_EVENT events) override;
    STDMETHODIMP_(NTSTATUS) ConnectOutput(PMXF sink) override;
    STDMETHODIMP_(NTSTATUS) DisconnectOutput(PMXF sink) override;

    // Capture: bytes to hand to the sink on the next service pass.
    void inject(const Bytes &bytes);
    bool capture() const { return capture_; }
    std::vector<KSSTATE> states();

private:
    std::atomic<long> refs_{1};
    TestMiniport *miniport_;
    bool capture_;
    PAllocatorMXF allocator_;
    std::atomic<PMXF> sink_{nullptr};
    std::atomic<int> state_{KSSTATE_STOP};
    std::mutex mutex_;
    std::deque<Bytes> pending_;
    std::vector<KSSTATE> states_;
};

class TestMiniport final : public IMiniportDMus, public IPinName, public IPinCount {
public:
    TestMiniport();
    STDMETHODIMP_(NTSTATUS) QueryInterface(REFIID iid, PVOID *object) override;
    STDMETHODIMP_(ULONG) AddRef() override { return ULONG(++refs_); }
    STDMETHODIMP_(ULONG) Release() override;
    STDMETHODIMP_(NTSTATUS) GetDescription(PPCFILTER_DESCRIPTOR *description) override;
    STDMETHODIMP_(NTSTATUS) DataRangeIntersection(ULONG, PKSDATARANGE, PKSDATARANGE, ULONG, PVOID, PULONG) override
    {
        return STATUS_NOT_IMPLEMENTED;
    }
    STDMETHODIMP_(NTSTATUS) Init(PUNKNOWN, PRESOURCELIST, PPORTDMUS port, PSERVICEGROUP *group) override;
    STDMETHODIMP_(void) Service() override { serviceCalls++; }
    STDMETHODIMP_(NTSTATUS) NewStream(PMXF *mxf, PUNKNOWN, POOL_TYPE, ULONG pinId, DMUS_STREAM_TYPE type,
                                      PKSDATAFORMAT format, PSERVICEGROUP *group, PAllocatorMXF allocator,
                                      PMASTERCLOCK clock, PULONGLONG prefetch) override;
    STDMETHODIMP_(NTSTATUS) GetPinName(PIRP irp, PKSP_PIN pin, PVOID data) override;
    STDMETHODIMP_(void) PinCount(ULONG pinId, PULONG, PULONG, PULONG filterPossible, PULONG, PULONG) override;

    PPORTDMUS port() const { return port_; }
    PSERVICEGROUP group() const { return group_; }
    std::vector<TestStream *> streams(bool capture);
    void streamGone(TestStream *stream);

    std::atomic<long> serviceCalls{0};
    std::atomic<NTSTATUS> newStreamStatus{STATUS_SUCCESS};
    // How QueryInterface breaks COM identity: None; RefuseUnknown (as a
    // driver with a misspelt IID_IUnknown does); TwoUnknowns (IID_IUnknown
    // answered with another interface's pointer every second time).
    enum class Identity { Sound, RefuseUnknown, TwoUnknowns };
    std::atomic<Identity> identity{Identity::Sound};
    std::atomic<ULONG> renderFilterLimit{0xFFFFFFFF}; // IPinCount's say on pin 0
    struct NewStreamCall {
        ULONG pinId;
        DMUS_STREAM_TYPE type;
        GUID subFormat;
        bool allocator, clock;
    };
    std::vector<NewStreamCall> newStreamCalls;
    // Render streams append what they were played, with the IRQL they saw.
    Bytes rendered;
    std::vector<KIRQL> renderIrqls;
    size_t packageEvents = 0;
    std::mutex mutex;

private:
    ~TestMiniport();
    std::atomic<long> refs_{1};
    std::atomic<int> unknownQueries_{0};
    PPORTDMUS port_ = nullptr;
    PSERVICEGROUP group_ = nullptr;
    std::vector<TestStream *> streams_;
};

SeenRequest lastRequest();
std::atomic<long> &liveTestObjects();

// A driver whose adapter publishes test miniports as sub-devices.
class PortclsTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // A sub-device named `name` whose interfaces carry the FriendlyName `friendly`.
    TestMiniport *publish(const std::u16string &name, const std::u16string &friendly,
                          TestMiniport::Identity identity = TestMiniport::Identity::Sound);
    NTSTATUS withdraw(TestMiniport *miniport);
    hk::Process &process(uint64_t id);
    std::unique_ptr<hk::midi::Filter> openFilter(hk::Process &p, const std::u16string &friendly);
    std::unique_ptr<hk::midi::Pin> openPin(hk::midi::Filter &f, ULONG pinId, NTSTATUS expected = STATUS_SUCCESS,
                                           const GUID &subFormat = KSDATAFORMAT_SUBTYPE_MIDI);
    PDEVICE_OBJECT fdo();

    PDRIVER_OBJECT driver_ = nullptr;
    std::shared_ptr<hk::DeviceNode> node_;
    struct Published {
        TestMiniport *miniport;
        PPORTDMUS port;
    };
    std::vector<Published> published_;
    std::vector<std::unique_ptr<hk::Process>> processes_;
};

} // namespace pctest
