// A suspender that keeps account, and fails where it is told to.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "process_manager/services/process_suspender.h"
#include "zym/object.h"

namespace qor {

class FakeProcessSuspender : public zym::object::Ifaces<IQorProcessSuspender> {
 public:
  zym::result_t SuspendProcess(std::uint32_t pid, std::uint32_t timeout) override {
    calls.push_back("suspend " + std::to_string(pid) + " " + std::to_string(timeout));
    return suspendResult;
  }
  zym::result_t ReleaseProcess(std::uint32_t pid) override {
    calls.push_back("release " + std::to_string(pid));
    return releaseResult;
  }
  zym::result_t ReadMemory(std::uint32_t pid, std::uint64_t address,
                           const zym::types::blob_range_t& range) override {
    calls.push_back("read " + std::to_string(pid) + " " + std::to_string(address));
    std::fill(range.begin(), range.end(), std::uint8_t{0x5a});
    return readResult;
  }
  zym::result_t Start() override {
    calls.emplace_back("start");
    return startResult;
  }
  zym::result_t Stop() override {
    calls.emplace_back("stop");
    return stopResult;
  }

  zym::result_t suspendResult = zym::ZYM_OK;
  zym::result_t releaseResult = zym::ZYM_OK;
  zym::result_t readResult = zym::ZYM_OK;
  zym::result_t startResult = zym::ZYM_OK;
  zym::result_t stopResult = zym::ZYM_OK;
  std::vector<std::string> calls;
};

}  // namespace qor
