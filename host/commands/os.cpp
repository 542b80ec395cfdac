#include "host/commands/os.h"

#include <unistd.h>

#include <string>

#include "host/failure.h"
#include "host/output/json.h"
#include "host/output/line_writer.h"
#include "host/services/tracer.h"
#include "qor_common/os_info.h"

namespace pmhost {
namespace {

// "6.1.0": as many numbers as are known.
std::string Shown(const qor::KernelVersion& kernel) {
  std::string text;
  const char* separator = "";
  for (const int number : {kernel.major, kernel.minor, kernel.patch, kernel.build}) {
    if (number < 0) break;
    text += separator + std::to_string(number);
    separator = ".";
  }
  return text;
}

// The release files are written for a shell: a value may stand in quotes, with a backslash before some
// characters. A text of another form is shown as it is.
std::string Unquoted(const std::string& value) {
  const char quote = value.empty() ? '\0' : value.front();
  if (value.size() < 2 || (quote != '"' && quote != '\'') || value.back() != quote) return value;
  std::string text;
  for (std::size_t i = 1; i + 1 < value.size(); ++i) {
    if (quote == '"' && value[i] == '\\' && i + 2 < value.size()) ++i;
    text += value[i];
  }
  return text;
}

}  // namespace

void ShowOs(const GlobalOptions& global) {
  const auto tracer = zym::CreateObject<Tracer>(global.traceLevel, global.traceFile);
  qor::OsInfo info;
  Require(qor::GetOsInfo(tracer.get(), info), "cannot tell what this machine runs");
  for (std::string* const value : {&info.name, &info.version, &info.description}) *value = Unquoted(*value);
  const std::string kernel = Shown(qor::GetLinuxKernelRelease(tracer.get()));
  const bool workstation = qor::IsWorkstation(tracer.get());

  LineWriter writer(STDOUT_FILENO);
  if (global.json) {
    JsonLine line;
    const auto text = [&line](const char* name, const std::string& value) {
      value.empty() ? line.Null(name) : line.Text(name, std::string_view(value));
    };
    line.Begin();
    text("name", info.name);
    text("version", info.version);
    text("description", info.description);
    text("kernel", kernel);
    line.Boolean("workstation", workstation);
    writer.WriteLine(line.End());
    return writer.Finish();
  }
  writer.WriteLine("name         " + info.name);
  writer.WriteLine("version      " + info.version);
  writer.WriteLine("description  " + info.description);
  writer.WriteLine("kernel       " + kernel);
  writer.WriteLine(std::string("workstation  ") + (workstation ? "yes" : "no, a server"));
  writer.Finish();
}

}  // namespace pmhost
