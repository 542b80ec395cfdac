#include "host/commands/features.h"

#include <unistd.h>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <vector>

#include "host/commands/netlink_source.h"
#include "host/failure.h"
#include "host/host.h"
#include "host/output/json.h"
#include "host/output/line_writer.h"
#include "qor_common/enum_names.h"

namespace pmhost {
namespace {

template <class E>
std::string NameOf(std::uint32_t value) {
  try {
    return qor::EnumToString(static_cast<E>(value));
  } catch (const std::runtime_error&) {
    return std::to_string(value);
  }
}

struct Feature {
  std::string name;
  std::vector<std::string> technologies;
};

std::vector<Feature> Name(const qor::FeatureTechsReport& report) {
  std::vector<Feature> features;
  for (const qor::FeatureTechsReport::Entry& entry : report.entries) {
    Feature feature{.name = NameOf<qor::ReportFeatures::Type>(entry.feature), .technologies = {}};
    for (const std::uint32_t tech : entry.techs)
      feature.technologies.push_back(NameOf<qor::ReportFeatureTechs::Type>(tech));
    std::ranges::sort(feature.technologies);
    features.push_back(std::move(feature));
  }
  std::ranges::sort(features, {}, &Feature::name);
  return features;
}

}  // namespace

void ShowFeatures(const GlobalOptions& global) {
  Host host(global);
  const NetlinkSource source(host.GetInterceptor(), qor::process_manager::non_blocking_type::kNetlink);
  qor::FeatureTechsReport report;
  Require(host.GetFeatures()->Report(report), "cannot tell which features run");

  LineWriter writer(STDOUT_FILENO);
  JsonLine line;
  for (const Feature& feature : Name(report)) {
    if (global.json) {
      line.Begin();
      line.Text("feature", std::string_view(feature.name));
      line.BeginList("technologies");
      for (const std::string& technology : feature.technologies) line.Item(technology);
      line.EndList();
      writer.WriteLine(line.End());
      continue;
    }
    std::string text = feature.name + ":";
    for (const std::string& technology : feature.technologies) text += " " + technology;
    writer.WriteLine(text);
  }
  writer.Finish();
}

}  // namespace pmhost
