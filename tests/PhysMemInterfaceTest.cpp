#include "PhysMemInterface.h"

#include <cstring>

#include "Buffer.h"
#include "OSServicesHost.h"
#include "OrvaneTest.h"

namespace Orvane {
namespace {

struct FactsBeforeInit {
  std::uint64_t pageSize = 1;
  std::string faultOfAllocate;
} before;

const bool noted = OrvaneTest::RunBeforeInit([] {
  before.pageSize = PhysMemInterface::GetPageSize();
  try {
    PhysMemInterface::Allocate(1);
  } catch (const char* fault) {
    before.faultOfAllocate = fault;
  }
});

// The protected installation.
class OpenInterface : public PhysMemInterface {
 public:
  using PhysMemInterface::InstallImplementation;
};

class PhysMemInterfaceTest : public OrvaneTest {
 protected:
  const std::uint64_t page_ = PhysMemInterface::GetPageSize();

  std::uint64_t ValidPages(std::uint64_t address, std::uint64_t size) {
    return PhysMemInterface::GetNumberOfValidPagesForBuffer(reinterpret_cast<void*>(address), size);
  }
};

TEST_F(PhysMemInterfaceTest, NothingIsAllocatedBeforeInstallation) {
  EXPECT_TRUE(noted);
  EXPECT_EQ(0u, before.pageSize);
  EXPECT_EQ("PhysMemInterface No Installed Implementation", before.faultOfAllocate);
}

TEST_F(PhysMemInterfaceTest, InstallationHappensOnceAndNeedsAnImplementation) {
  try {
    OpenInterface::InstallImplementation(nullptr);
    ADD_FAILURE() << "no exception";
  } catch (const char* fault) {
    EXPECT_STREQ("PhysMemInterface No Installed Implementation", fault);
  }
  PhysMemInterfaceImpHost second;
  try {
    OpenInterface::InstallImplementation(&second);
    ADD_FAILURE() << "no exception";
  } catch (const char* fault) {
    EXPECT_STREQ("PhysMemInterface Implementation Already Installed", fault);
  }
}

TEST_F(PhysMemInterfaceTest, NoBytesAreNotAllocated) {
  EXPECT_EQ(nullptr, PhysMemInterface::Allocate(0));
}

TEST_F(PhysMemInterfaceTest, SizeIsRoundedUpToWholePages) {
  AutoRelease<Buffer> one(PhysMemInterface::Allocate(1));
  EXPECT_EQ(page_, one->GetSize());
  AutoRelease<Buffer> exact(PhysMemInterface::Allocate(2 * page_));
  EXPECT_EQ(2 * page_, exact->GetSize());
  AutoRelease<Buffer> more(PhysMemInterface::Allocate(2 * page_ + 1));
  EXPECT_EQ(3 * page_, more->GetSize());
}

TEST_F(PhysMemInterfaceTest, MemoryIsAlignedWritableAndTheCallersAlone) {
  for (const std::uint64_t size : {page_, std::uint64_t{3} << 20}) {
    AutoRelease<Buffer> buffer(PhysMemInterface::Allocate(size));
    ASSERT_NE(nullptr, buffer.Get());
    EXPECT_EQ(1, buffer->GetRefCount());
    EXPECT_EQ(size / page_, PhysMemInterface::GetNumberOfValidPagesForBuffer(buffer->GetAddress(),
                                                                             buffer->GetSize()));
    std::memset(buffer->GetAddress(), 1, buffer->GetSize());
  }
}

TEST_F(PhysMemInterfaceTest, ImpossibleSizesAreNull) {
  EXPECT_EQ(nullptr, PhysMemInterface::Allocate(~std::uint64_t{0}));
  EXPECT_EQ(nullptr, PhysMemInterface::Allocate(~std::uint64_t{0} - page_ + 2));
  EXPECT_EQ(nullptr, PhysMemInterface::Allocate(~std::uint64_t{0} - page_ + 1));
  EXPECT_EQ(nullptr, PhysMemInterface::Allocate(std::uint64_t{1} << 60));
}

TEST_F(PhysMemInterfaceTest, MemoryShortageIsNullAndNoException) {
  {
    const AllocationFailure failure(1);
    EXPECT_EQ(nullptr, PhysMemInterface::Allocate(1));
    EXPECT_TRUE(failure.HasHappened());
  }
  TestMTInterface::Get().FailCreation(3, TestMTInterface::kThrow);
  EXPECT_EQ(nullptr, PhysMemInterface::Allocate(1));
  EXPECT_TRUE(TestMTInterface::Get().StopFailing());
}

TEST_F(PhysMemInterfaceTest, PagesCountOnlyIfAddressAndSizeAreMultiples) {
  EXPECT_EQ(0u, ValidPages(0, page_));
  EXPECT_EQ(0u, ValidPages(16 * page_, 0));
  EXPECT_EQ(1u, ValidPages(16 * page_, page_));
  EXPECT_EQ(7u, ValidPages(16 * page_, 7 * page_));
  EXPECT_EQ(0u, ValidPages(16 * page_, page_ + 1));
  EXPECT_EQ(0u, ValidPages(16 * page_, page_ / 2));
  EXPECT_EQ(0u, ValidPages(16 * page_ + 1, page_));
  EXPECT_EQ(0u, ValidPages(16 * page_ + page_ / 2, page_));
}

}  // namespace
}  // namespace Orvane
