#include "platform/kernel/fault_points.h"
#include "platform/kernel/pool.h"
#include "platform/kernel/registry.h"
#include "tests/platform/run.h"

#include <ntddk.h>

#include <gtest/gtest.h>

#include <cstring>

namespace {

using namespace kernel;
using namespace platform_test;

TEST(Pool, BlocksAreAlignedFilledAndCounted) {
    run(sim(Strategy::InOrder), [] {
        for (SIZE_T size : {1u, 15u, 16u, 4095u, 4096u, 4097u, 100'000u, 7'077'958u}) {
            UCHAR* block = allocate(size);
            ASSERT_NE(block, nullptr);
            EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % (size >= 4096 ? 4096 : 16), 0u) << size;
            EXPECT_EQ(block[0], kFreshFill);
            EXPECT_EQ(block[size - 1], kFreshFill);
            const auto found = findPoolBlock(block + size - 1);
            ASSERT_TRUE(found);
            EXPECT_EQ(found->size, size);
            std::memset(block, 0, size);
            ExFreePoolWithTag(block, kTag);
        }
        EXPECT_EQ(poolAllocations(), 8u);
        UCHAR* left = allocate(100);
        ASSERT_EQ(poolInUse().size(), 1u);
        EXPECT_EQ(poolInUse()[0].bytes, 100u);
        EXPECT_EQ(tagText(poolInUse()[0].tag), "Test");
        ExFreePoolWithTag(left, kTag);
        requirePoolEmpty("test");
    });
}

// A large block that comes out of the cache again must look as fresh as a new one.
TEST(Pool, ReusedBlocksAreFresh) {
    run(sim(Strategy::InOrder), [] {
        for (int round = 0; round < 3; round++) {
            UCHAR* block = allocate(1'000'000);
            for (SIZE_T i = 0; i < 1'000'000; i += 997) {
                ASSERT_EQ(block[i], kFreshFill) << "round " << round << ", byte " << i;
            }
            std::memset(block, round, 1'000'000);
            ExFreePoolWithTag(block, kTag);
        }
    });
}

TEST(Mdl, DescribesTheBytesOfItsBuffer) {
    run(sim(Strategy::InOrder), [] {
        UCHAR* block = allocate(10'000);
        PMDL mdl = IoAllocateMdl(block + 100, 9'900, FALSE, FALSE, nullptr);
        MmBuildMdlForNonPagedPool(mdl);
        EXPECT_EQ(MmGetMdlVirtualAddress(mdl), block + 100);
        EXPECT_EQ(MmGetMdlByteCount(mdl), 9'900u);
        EXPECT_EQ(MmGetMdlByteOffset(mdl), 100u);
        EXPECT_EQ(MmGetSystemAddressForMdlSafe(mdl, NormalPagePriority), block + 100);
        IoFreeMdl(mdl);
        ExFreePoolWithTag(block, kTag);
        requirePoolEmpty("test");
    });
}

struct FaultCase {
    FaultMode mode;
    const char* failures; // of six allocations with a creation between the third and the fourth
};

TEST(FaultPoints, TheArmedOneFails) {
    for (const FaultCase& test :
         {FaultCase{FaultMode::Once, "-x---- "}, FaultCase{FaultMode::Sticky, "-xxxxx "}}) {
        armFault(2, test.mode);
        std::string failures;
        for (int i = 0; i < 6; i++) {
            failures += faultPoint(FaultKind::Allocation, "allocate") ? 'x' : '-';
            if (i == 2) {
                failures += faultPoint(FaultKind::Creation, "create") ? "created" : "";
            }
        }
        EXPECT_EQ(failures + ' ', test.failures);
        EXPECT_TRUE(faultFired());
        EXPECT_EQ(faultDescription(), "allocation 2: allocate");
        EXPECT_EQ(faultPointsReached(), 7u);
        disarmFault();
        EXPECT_FALSE(faultPoint(FaultKind::Allocation, "allocate"));
    }
    run(sim(Strategy::InOrder), [] {
        armFault(1, FaultMode::Once);
        EXPECT_EQ(allocate(16), nullptr);
        UCHAR* block = allocate(16);
        EXPECT_NE(block, nullptr);
        ExFreePoolWithTag(block, kTag);
    });
}

TEST(Registry, NamesHaveNoCaseAndTypesAreKept) {
    run(sim(Strategy::InOrder), [] {
        const auto key = parametersKey(u"service");
        key->assign(u"Value", RegistryValue::dword(7));
        EXPECT_EQ(parametersKey(u"SERVICE")->value(u"vALUE")->asDword(), 7u);
        key->assign(u"VALUE", RegistryValue::binary({1, 2, 3, 4}));
        EXPECT_FALSE(key->value(u"value")->asDword()); // four bytes, but no number
    });
}

} // namespace
