#include "process_manager/process/file_name_mapper.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "support/fake_services.h"
#include "zym/module_counter.h"
#include "zym/service_provider.h"

namespace {

using qor::process_manager::FileNameMapper;
using system_interceptors::file_name_mapper::IFileNameMapper;
using system_interceptors::file_name_mapper::IFileNameMapper2;
using zym::types::string16_t;

constexpr const char16_t* kName = u"/a/./b/../c";

class FileNameMapperTest : public testing::Test {
 protected:
  FileNameMapperTest() {
    EXPECT_EQ(zym::QueryInterface(m_object, m_mapper.Ref()), zym::ZYM_OK);
    EXPECT_EQ(zym::QueryInterface(m_object, m_mapper2.Ref()), zym::ZYM_OK);
    EXPECT_EQ(zym::QueryInterface(m_object, m_dorp.Ref()), zym::ZYM_OK);
  }
  ~FileNameMapperTest() override {
    m_dorp.Reset();
    m_mapper2.Reset();
    m_mapper.Reset();
    m_object.Reset();
    EXPECT_EQ(zym::ModuleObjectCounter::Value(), m_objects);
  }

  test_support::FakeHost m_host;
  const std::int32_t m_objects = zym::ModuleObjectCounter::Value();
  zym::intrusive_ptr<FileNameMapper> m_object = zym::CreateObject<FileNameMapper>(m_host.locator.get());
  zym::intrusive_ptr<IFileNameMapper> m_mapper;
  zym::intrusive_ptr<IFileNameMapper2> m_mapper2;
  zym::intrusive_ptr<dorp::IFileNameMapper> m_dorp;
  string16_t m_out = u"what stood there before";
};

TEST_F(FileNameMapperTest, NeedsAnAllocatorAndATracer) {
  for (const zym::iid_t iid : {zym::IAllocator::kIid, zym::ITracer::kIid}) {
    const test_support::FakeHost host;
    host.locator->Remove(iid);
    EXPECT_THROW(static_cast<void>(zym::CreateObject<FileNameMapper>(host.locator.get())),
                 zym::GetInterfaceException);
  }
}

TEST_F(FileNameMapperTest, ANameIsCopiedAsItIs) {
  const string16_t in = kName;
  EXPECT_EQ(m_mapper->CopyName(in, m_out), zym::ZYM_OK);
  EXPECT_EQ(m_out, kName);
}

TEST_F(FileNameMapperTest, TheSameObjectIsLeftAlone) {
  m_out = u"/a/long/enough/name/to/be/on/the/heap/./..";
  const char16_t* const where = m_out.data();
  EXPECT_EQ(m_mapper->CopyName(m_out, m_out), zym::ZYM_OK);
  EXPECT_EQ(m_out, u"/a/long/enough/name/to/be/on/the/heap/./..");
  EXPECT_EQ(m_out.data(), where);
}

TEST_F(FileNameMapperTest, ATerminatedNameIsCopiedAsItIs) {
  EXPECT_EQ(m_mapper->CopyName(kName, m_out), zym::ZYM_OK);
  EXPECT_EQ(m_out, kName);
}

TEST_F(FileNameMapperTest, NormalizeNameCopiesAndNormalises) {
  EXPECT_EQ(m_mapper->NormalizeName(kName, m_out), zym::ZYM_OK);
  EXPECT_EQ(m_out, u"/a/c");
  EXPECT_EQ(m_mapper->NormalizeName(u"", m_out), zym::ZYM_OK);
  EXPECT_EQ(m_out, u".");
}

TEST_F(FileNameMapperTest, TheOtherFamilysOperationsCopy) {
  EXPECT_EQ(m_dorp->CopyName(kName, m_out), zym::ZYM_OK);
  EXPECT_EQ(m_out, kName);
  m_out.clear();
  EXPECT_EQ(m_dorp->CopyNameBack(kName, m_out), zym::ZYM_OK);
  EXPECT_EQ(m_out, kName);
}

TEST_F(FileNameMapperTest, TheFirstArgumentOfTheOtherFamilyIsIgnored) {
  for (const std::uint64_t unused : {0ULL, 1ULL, ~0ULL}) {
    m_out.clear();
    EXPECT_EQ(m_dorp->CopyName(unused, kName, m_out), zym::ZYM_OK);
    EXPECT_EQ(m_out, kName);
  }
}

TEST_F(FileNameMapperTest, ACountedRangeIsCopiedWithWhateverIsInIt) {
  const std::u16string_view name(u"/a\0/./b and more", 7);
  EXPECT_EQ(m_mapper2->CopyName(name, m_out), zym::ZYM_OK);
  EXPECT_EQ(std::u16string_view(m_out), name);
  EXPECT_EQ(m_mapper2->CopyName(std::u16string_view(), m_out), zym::ZYM_OK);
  EXPECT_EQ(m_out, u"");
}

TEST_F(FileNameMapperTest, OnlyModeOneNormalises) {
  for (const std::uint32_t mode : {0U, 2U, 3U, 0x80000001U, 0xffffffffU}) {
    EXPECT_EQ(m_mapper2->CopyName(kName, m_out, mode), zym::ZYM_OK);
    EXPECT_EQ(m_out, kName) << mode;
  }
  EXPECT_EQ(m_mapper2->CopyName(kName, m_out, 1), zym::ZYM_OK);
  EXPECT_EQ(m_out, u"/a/c");
}

TEST_F(FileNameMapperTest, TheInputMayLieInTheOutput) {
  m_out = u"/begin/of/a/name/./on/../the/heap";
  EXPECT_EQ(m_mapper->CopyName(m_out.c_str() + 6, m_out), zym::ZYM_OK);
  EXPECT_EQ(m_out, u"/of/a/name/./on/../the/heap");
  EXPECT_EQ(m_mapper->NormalizeName(m_out.c_str() + 3, m_out), zym::ZYM_OK);
  EXPECT_EQ(m_out, u"/a/name/the/heap");
  EXPECT_EQ(m_mapper2->CopyName(std::u16string_view(m_out).substr(0, 7), m_out, 0), zym::ZYM_OK);
  EXPECT_EQ(m_out, u"/a/name");
}

TEST_F(FileNameMapperTest, ALackOfMemoryIsACode) {
  const std::u16string name(100, u'n');
  string16_t out{string16_t::allocator_type(m_host.allocator.get())};
  m_host.allocator->FailFrom(0);
  EXPECT_EQ(m_mapper->CopyName(string16_t(name), out), zym::ZYM_E_OUT_OF_MEMORY);
  EXPECT_EQ(m_mapper->CopyName(name.c_str(), out), zym::ZYM_E_OUT_OF_MEMORY);
  EXPECT_EQ(m_mapper->NormalizeName(name.c_str(), out), zym::ZYM_E_OUT_OF_MEMORY);
  EXPECT_EQ(m_dorp->CopyName(0, name.c_str(), out), zym::ZYM_E_OUT_OF_MEMORY);
  EXPECT_EQ(m_mapper2->CopyName(name, out, 1), zym::ZYM_E_OUT_OF_MEMORY);
  EXPECT_TRUE(m_host.tracer->Has(300, "CopyName: "));
  m_host.allocator->NeverFail();
  EXPECT_EQ(m_mapper->CopyName(name.c_str(), out), zym::ZYM_OK);
  EXPECT_EQ(std::u16string_view(out), name);
}

TEST_F(FileNameMapperTest, ManyThreadsMayAskAtOnce) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i)
    threads.emplace_back([this] {
      for (int j = 0; j < 500; ++j) {
        string16_t out;
        EXPECT_EQ(m_mapper->NormalizeName(kName, out), zym::ZYM_OK);
        EXPECT_EQ(out, u"/a/c");
      }
    });
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
