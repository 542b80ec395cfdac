// The memory of a real process, through the module as a host uses it.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "module/module_host.h"
#include "process_manager/process_memory.h"
#include "support/fake_process_control.h"
#include "support/memory_actor.h"
#include "support/own_process.h"
#include "zym/utf.h"

namespace {

using namespace test_support;
using namespace system_interceptors::process_memory_manager;
using Bytes = std::vector<std::uint8_t>;

// The protections of the 16 permissions, by the letters of /proc/<pid>/maps.
const std::map<std::string, std::uint32_t> kProtections = {
    {"---p", 0x01}, {"r--p", 0x02}, {"-w-p", 0x08}, {"rw-p", 0x04}, {"--xp", 0x10}, {"r-xp", 0x20},
    {"-wxp", 0x01}, {"rwxp", 0x80}, {"---s", 0x01}, {"r--s", 0x02}, {"-w-s", 0x08}, {"rw-s", 0x04},
    {"--xs", 0x10}, {"r-xs", 0x20}, {"-wxs", 0x01}, {"rwxs", 0x40},
};

class ModuleProcessMemory : public testing::Test {
 protected:
  ModuleProcessMemory() {
    EXPECT_EQ(m_host.module.Make(qor::class_ids::kProcessMemoryFactory, m_host.host.locator.get(), m_factory),
              zym::ZYM_OK);
  }

  zym::intrusive_ptr<IProcessMemory> Of(std::uint32_t pid) {
    const auto control = zym::CreateObject<FakeProcessControl>(pid);
    zym::intrusive_ptr<IProcessMemory> memory;
    EXPECT_EQ(m_factory->Create(control.get(), memory.Ref()), zym::ZYM_OK);
    return memory;
  }
  static zym::result_t Read(IProcessMemory& memory, std::uint64_t address, Bytes& bytes) {
    return memory.ReadMemory(address, {bytes.data(), bytes.data() + bytes.size()});
  }
  static std::vector<ProcessMemoryRegionInformation> Walk(IProcessMemory& memory) {
    zym::intrusive_ptr<IProcessMemoryRegionEnumerator> enumerator;
    EXPECT_EQ(memory.EnumerateMemoryRegions(enumerator.Ref()), zym::ZYM_OK);
    std::vector<ProcessMemoryRegionInformation> regions;
    ProcessMemoryRegionInformation region;
    while (enumerator->Next(region) == zym::ZYM_OK) regions.push_back(region);
    return regions;
  }

  ModuleHost m_host;
  zym::intrusive_ptr<IProcessMemoryFactory> m_factory;
};

TEST_F(ModuleProcessMemory, TheRegionWalkIsTheMapsFileEntryForEntry) {
  const MemoryActor actor;
  const auto memory = Of(actor.Pid());
  const std::vector<MapsLine> maps = ReadMaps(actor.Pid());
  const auto regions = Walk(*memory);
  ASSERT_EQ(regions.size(), maps.size());
  for (std::size_t i = 0; i < maps.size(); ++i) {
    EXPECT_EQ(regions[i].baseAddress, maps[i].begin);
    EXPECT_EQ(regions[i].allocationBase, maps[i].begin);
    EXPECT_EQ(regions[i].size, maps[i].end - maps[i].begin) << maps[i].path;
    EXPECT_EQ(regions[i].protection, kProtections.at(maps[i].permissions)) << maps[i].permissions;
    EXPECT_EQ(regions[i].allocationProtection, regions[i].protection);
    EXPECT_EQ(regions[i].state, 3U);
    EXPECT_EQ(regions[i].type, 1U);
    zym::types::string16_t path = u"before";
    EXPECT_EQ(memory->QueryMappedFilePath(maps[i].begin, path), zym::ZYM_OK);
    EXPECT_EQ(zym::Utf16ToUtf8(path), maps[i].path);
  }
}

TEST_F(ModuleProcessMemory, ResetStartsTheWalkAgainFromTheSameSnapshot) {
  MemoryActor actor;
  zym::intrusive_ptr<IProcessMemoryRegionEnumerator> enumerator;
  ASSERT_EQ(Of(actor.Pid())->EnumerateMemoryRegions(enumerator.Ref()), zym::ZYM_OK);
  std::vector<std::uint64_t> walks[2];
  ProcessMemoryRegionInformation region;
  for (auto& walk : walks) {
    while (enumerator->Next(region) == zym::ZYM_OK) walk.push_back(region.baseAddress);
    EXPECT_EQ(enumerator->Reset(), zym::ZYM_OK);
    actor.End();
  }
  EXPECT_GT(walks[0].size(), 10U);
  EXPECT_EQ(walks[0], walks[1]);
}

// The rule by which callers walk: the first mapping that begins at or above the address.
TEST_F(ModuleProcessMemory, QueryRegionGivesTheFirstMappingThatBeginsAtOrAboveTheAddress) {
  const MemoryActor actor;
  const auto memory = Of(actor.Pid());
  const auto regions = Walk(*memory);
  ASSERT_GE(regions.size(), 2U);
  ProcessMemoryRegionInformation region;
  ASSERT_EQ(memory->QueryRegion(regions[0].baseAddress, region), zym::ZYM_OK);
  EXPECT_EQ(region.baseAddress, regions[0].baseAddress) << "the exact start of the first gives it";
  ASSERT_EQ(memory->QueryRegion(regions[0].baseAddress + 1, region), zym::ZYM_OK);
  EXPECT_EQ(region.baseAddress, regions[1].baseAddress) << "and one above it the second";
  EXPECT_EQ(static_cast<std::uint32_t>(memory->QueryRegion(regions.back().baseAddress + 1, region)),
            0x80000046U);
}

TEST_F(ModuleProcessMemory, ReadsWhatTheProcessToldOfItself) {
  const MemoryActor actor;
  const auto memory = Of(actor.Pid());
  for (const char* name :
       {"anonymous", "low", "file", "shared", "across", "library", "anonymous-code", "edge", "vdso"}) {
    if (!actor.Has(name)) continue;  // a kernel may have no vdso
    Bytes bytes(actor.Get(name).length);
    EXPECT_EQ(Read(*memory, actor.Get(name).address, bytes), zym::ZYM_OK) << name;
    EXPECT_EQ(bytes, actor.Get(name).bytes) << name;
  }
}

TEST_F(ModuleProcessMemory, WhatCannotBeReadIsWhatTheMemFileDoesNotGive) {
  const MemoryActor actor;
  const auto memory = Of(actor.Pid());
  for (const char* name : {"guarded", "write-execute", "vvar", "unmapped"}) {
    if (!actor.Has(name)) continue;
    const auto& mapping = actor.Get(name);
    const Bytes plain = ReadMemFile(actor.Pid(), mapping.address, mapping.length);
    Bytes bytes(mapping.length);
    const zym::result_t result = Read(*memory, mapping.address, bytes);
    EXPECT_EQ(result == zym::ZYM_OK, plain.size() == mapping.length) << name;
    bytes.resize(plain.size());
    EXPECT_EQ(bytes, plain) << name;
  }
}

TEST_F(ModuleProcessMemory, ReadsOneGiB) {
  constexpr std::uint64_t kSize = 1ULL << 30;
  const MemoryActor actor(kSize);
  Bytes bytes(kSize, 0xee);
  ASSERT_EQ(Read(*Of(actor.Pid()), actor.Get("large").address, bytes), zym::ZYM_OK);
  for (std::uint64_t offset = 0; offset < kSize; offset += 1 << 20) {
    std::uint64_t stamp = 0;
    std::memcpy(&stamp, bytes.data() + offset, sizeof(stamp));
    ASSERT_EQ(stamp, offset);
    ASSERT_EQ(bytes[offset + 4096], 0) << "what was never touched is zero";
  }
}

TEST_F(ModuleProcessMemory, ReadsOfNoBytesAndAtAddressZero) {
  const MemoryActor actor;
  const auto memory = Of(actor.Pid());
  Bytes none;
  EXPECT_EQ(Read(*memory, actor.Get("anonymous").address, none), zym::ZYM_OK);
  EXPECT_EQ(Read(*memory, actor.Get("unmapped").address, none), zym::ZYM_OK);
  EXPECT_EQ(static_cast<std::uint32_t>(Read(*memory, 0, none)), 0x80000046U);
}

TEST_F(ModuleProcessMemory, APathAboveTheLastRegionOrOfAnAnonymousOne) {
  const MemoryActor actor;
  const auto memory = Of(actor.Pid());
  zym::types::string16_t path;
  EXPECT_EQ(memory->QueryMappedFilePath(actor.Get("file").address, path), zym::ZYM_OK);
  EXPECT_EQ(zym::Utf16ToUtf8(path), actor.File());
  EXPECT_EQ(memory->QueryMappedFilePath(actor.Get("low").address, path), zym::ZYM_OK);
  EXPECT_EQ(path, u"");
  EXPECT_EQ(static_cast<std::uint32_t>(memory->QueryMappedFilePath(0xfffffffffffff000, path)), 0x80000046U);
}

TEST_F(ModuleProcessMemory, AProcessThatIsGoneHasNone) {
  MemoryActor actor;
  const auto control = zym::CreateObject<FakeProcessControl>(actor.Pid());
  const auto memory = Of(actor.Pid());
  actor.End();
  int sentinel = 0;
  auto* const untouched = reinterpret_cast<IProcessMemory*>(&sentinel);
  IProcessMemory* other = untouched;
  EXPECT_EQ(static_cast<std::uint32_t>(m_factory->Create(control.get(), &other)), 0x8000004bU);
  EXPECT_EQ(other, untouched);
  Bytes bytes(1);
  EXPECT_EQ(static_cast<std::uint32_t>(Read(*memory, actor.Get("low").address, bytes)), 0x80000151U);
}

TEST_F(ModuleProcessMemory, WritingIsNotImplemented) {
  const MemoryActor actor;
  const std::uint8_t byte = 0;
  EXPECT_EQ(
      static_cast<std::uint32_t>(Of(actor.Pid())->WriteMemory(actor.Get("low").address, {&byte, &byte + 1})),
      0x80000043U);
}

TEST_F(ModuleProcessMemory, NothingIsLeftOpen) {
  const MemoryActor actor;
  const auto before = OpenDescriptors();
  {
    const auto memory = Of(actor.Pid());
    Bytes bytes(4096);
    EXPECT_EQ(Read(*memory, actor.Get("low").address, bytes), zym::ZYM_OK);
    EXPECT_EQ(OpenDescriptors(), before) << "an object keeps nothing open";
  }
  EXPECT_EQ(m_host.host.allocator->Live(), 2) << "the reader of /proc and the factory";
}

}  // namespace
