// The host's matchers of paths, over its language of patterns.
#pragma once

#include "process_manager/services/path_matching.h"
#include "zym/object.h"
#include "zym/tracer.h"

namespace pmhost {

// Traces what is wrong with a pattern.
class PathMatcherFactory : public zym::object::Ifaces<qor::IPathMatcherFactory> {
 public:
  explicit PathMatcherFactory(const zym::intrusive_ptr<zym::ITracer>& tracer) : m_tracer(tracer) {}

  zym::result_t CheckPattern(const qor::NativePath& pattern) override;
  zym::result_t CreateExactMatcher(const qor::PathList& texts, qor::IPathMatcher** matcher) override;
  zym::result_t CreateTreeMatcher(const qor::PathList& directories, qor::IPathMatcher** matcher) override;
  zym::result_t CreateExceptingMatcher(const qor::PathList& patterns, const qor::PathList& exceptions,
                                       qor::IPathMatcher** matcher) override;
  zym::result_t CreateMountMatcher(const qor::PathList& excluded, const qor::PathList& exceptions,
                                   qor::IPathMatcher** matcher) override;
  zym::result_t CreateNameMatcher(const qor::PathList& patterns, qor::IPathMatcher** matcher) override;
  zym::result_t CreatePatternMatcher(const qor::NativePath& pattern, qor::IPathMatcher** matcher) override;
  zym::result_t CreatePathMatcher(const qor::PathList& patterns, qor::IPathMatcher** matcher) override;

 private:
  const zym::intrusive_ptr<zym::ITracer> m_tracer;
};

}  // namespace pmhost
