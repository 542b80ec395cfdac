#include "host/commands/features.h"

#include <unistd.h>
#include <CLI/CLI.hpp>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <vector>

#include "host/commands/netlink_source.h"
#include "host/failure.h"
#include "host/host.h"
#include "host/output/table.h"
#include "qor_common/enum_names.h"

namespace pmhost {
namespace {

struct Feature {
  std::string name;
  Names technologies;
};

std::vector<Column<Feature>> Columns() {
  return {
      {{"feature", Kind::kText, "FEATURE"}, [](const Feature& feature) { return Value(feature.name); }},
      {{"technologies", Kind::kNames, "TECHNOLOGIES"},
       [](const Feature& feature) { return Value(feature.technologies); }},
  };
}

template <class E>
std::string NameOf(std::uint32_t value) {
  try {
    return qor::EnumToString(static_cast<E>(value));
  } catch (const std::runtime_error&) {
    return std::to_string(value);
  }
}

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

class Features final : public Command {
 public:
  CLI::App& AddTo(CLI::App& app) override {
    return *app.add_subcommand("features", "List the features that run, and by which technologies");
  }

  // Turns on what this host can, lists it, and turns it off again.
  void Run(const GlobalOptions& global) override {
    Host host(global);
    const NetlinkSource source(host.GetInterceptor(), qor::process_manager::non_blocking_type::kNetlink);
    qor::FeatureTechsReport report;
    Require(host.GetFeatures()->Report(report), "cannot list the features that run");
    LineWriter writer(STDOUT_FILENO);
    Table<Feature>(global.json ? Layout::kJson : Layout::kTable, Columns(), writer).PrintAll(Name(report));
    writer.Finish();
  }
};

}  // namespace

std::unique_ptr<Command> MakeFeatures() {
  return std::make_unique<Features>();
}

}  // namespace pmhost
