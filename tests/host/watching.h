// pmhost watching the processes that a test makes.
#pragma once

#include <unistd.h>

#include <stop_token>
#include <string>
#include <thread>
#include <vector>

#include "host/run_pmhost.h"
#include "support/actor.h"

namespace host_tests {

// Watches, and is known to: a marker's event has come.
class Watching : public Pmhost {
 public:
  explicit Watching(std::vector<std::string> arguments = {"watch", "--json"}) : Pmhost(std::move(arguments)) {
    const std::jthread markers([](const std::stop_token& seen) {
      while (!seen.stop_requested()) {
        test_support::RunTrue();
        ::usleep(20'000);  // a new marker now and then, until one is seen
      }
    });
    std::string line = ReadLine();
    if (line.starts_with("TIME")) line = ReadLine();  // behind the heading
    EXPECT_NE(line, "") << "nothing is watched";
  }

  // Reads until an image has begun in a process, and what it is told by.
  rapidjson::Document ReadExecOf(pid_t pid, const std::string& commandLine) {
    rapidjson::Document found;
    EXPECT_TRUE(ReadUntil([&](const rapidjson::Document& event) {
      if (event["pid"].GetInt() != pid || !event["from_exec"].GetBool() ||
          TextOf(event, "event") != "create_process")
        return false;
      if (TextOf(event, "command_line") != commandLine) return false;
      found.CopyFrom(event, found.GetAllocator());
      return true;
    })) << commandLine;
    return found;
  }
  // Reads until any event of a process.
  rapidjson::Document ReadEventOf(pid_t pid, const char* type) {
    rapidjson::Document found;
    EXPECT_TRUE(ReadUntil([&](const rapidjson::Document& event) {
      if (event["pid"].GetInt() != pid || TextOf(event, "event") != type) return false;
      found.CopyFrom(event, found.GetAllocator());
      return true;
    })) << type;
    return found;
  }
};

}  // namespace host_tests
