// The object base: its counting rules, its storage in pool, aggregation.
#include <gtest/gtest.h>

#include <cstring>

#include "hostkernel/executive.h"
#define AM_UNIT AM_UNIT_MINIPORT
#include "common/amcommon.h"
#include "common/amunknown.h"

namespace {

namespace hk = hostkernel;

constexpr ULONG kFrameworkTag = AMBREL_OBJECT_POOL_TAG;

int destroyed = 0;

// A framework object in the usual shape: its interface, the base, and the
// standard unknown forwarding to the controlling unknown.
class Probe : public IUnknown, public CUnknown {
public:
    DECLARE_STD_UNKNOWN();
    DEFINE_STD_CONSTRUCTOR(Probe);
    ~Probe() override
    {
        destroyed++;
        // A query and release during destruction (what a framework object
        // that unregisters itself does) must not destroy it a second time.
        PVOID self = nullptr;
        NonDelegatingQueryInterface(IID_IUnknown, &self);
        if (self != nullptr) {
            NonDelegatingRelease();
        }
    }
};

STDMETHODIMP_(NTSTATUS) Probe::NonDelegatingQueryInterface(REFIID iid, PVOID *object)
{
    return CUnknown::NonDelegatingQueryInterface(iid, object);
}

class UnknownTest : public ::testing::Test {
protected:
    void SetUp() override { destroyed = 0; }
};

TEST_F(UnknownTest, CountingStartsAtZeroAndTheLastReleaseDestroysOnce)
{
    size_t liveBefore = hk::poolStats(kFrameworkTag).liveAllocations;
    Probe *probe = new (NonPagedPool) Probe(nullptr);
    ASSERT_NE(probe, nullptr);
    EXPECT_EQ(hk::poolStats(kFrameworkTag).liveAllocations, liveBefore + 1);
    EXPECT_EQ(probe->GetReferenceCount(), 0);

    EXPECT_EQ(probe->NonDelegatingAddRef(), 1u);
    EXPECT_EQ(probe->AddRef(), 2u); // through the controlling unknown: itself
    EXPECT_EQ(probe->Release(), 1u);
    EXPECT_EQ(destroyed, 0);
    EXPECT_EQ(probe->NonDelegatingRelease(), 0u);
    EXPECT_EQ(destroyed, 1);
    EXPECT_EQ(hk::poolStats(kFrameworkTag).liveAllocations, liveBefore);
}

TEST_F(UnknownTest, QueriesHandOutTheUnknownWithAReference)
{
    Probe *probe = new (NonPagedPool) Probe(nullptr);
    ASSERT_NE(probe, nullptr);
    probe->NonDelegatingAddRef();

    PVOID unknown = nullptr;
    EXPECT_EQ(probe->QueryInterface(IID_IUnknown, &unknown), STATUS_SUCCESS);
    EXPECT_EQ(unknown, static_cast<PVOID>(static_cast<PNONDELEGATINGUNKNOWN>(probe)));
    EXPECT_EQ(probe->GetReferenceCount(), 2);

    const GUID other = {0x12345678, 1, 2, {3, 4, 5, 6, 7, 8, 9, 10}};
    PVOID none = &none;
    EXPECT_EQ(probe->QueryInterface(other, &none), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(none, nullptr);
    EXPECT_EQ(probe->GetReferenceCount(), 2);

    // The non-delegating unknown serves as the controlling one.
    EXPECT_EQ(static_cast<PUNKNOWN>(unknown)->Release(), 1u);
    EXPECT_EQ(probe->Release(), 0u);
    EXPECT_EQ(destroyed, 1);
}

TEST_F(UnknownTest, StorageIsZeroedPoolWithTheGivenTagOrNone)
{
    const ULONG tag = hk::tag("UnkT");
    for (size_t size : {1u, 24u, 300u}) {
        SCOPED_TRACE(size);
        auto *block = static_cast<unsigned char *>(CUnknown::operator new(size, NonPagedPool, tag));
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(hk::poolStats(tag).liveBytes, size);
        size_t nonZero = 0;
        for (size_t i = 0; i < size; i++) {
            nonZero += block[i] != 0 ? 1 : 0;
        }
        EXPECT_EQ(nonZero, 0u);
        CUnknown::operator delete(block);
        EXPECT_EQ(hk::poolStats(tag).liveBytes, 0u);
    }

    // No storage, no object: the constructor never runs on null.
    hk::failPoolAllocationsOfTag(kFrameworkTag);
    size_t failedBefore = hk::poolStats(kFrameworkTag).failedAllocations;
    Probe *probe = new (NonPagedPool) Probe(nullptr);
    EXPECT_EQ(probe, nullptr);
    EXPECT_EQ(hk::poolStats(kFrameworkTag).failedAllocations, failedBefore + 1);
    hk::clearPoolFaults();

    Probe *tagged = new (NonPagedPool, tag) Probe(nullptr);
    ASSERT_NE(tagged, nullptr);
    EXPECT_EQ(hk::poolStats(tag).liveAllocations, 1u);
    tagged->NonDelegatingAddRef();
    tagged->NonDelegatingRelease();
    EXPECT_EQ(hk::poolStats(tag).liveAllocations, 0u);
}

} // namespace
