// Matchers of paths. The language of the patterns is the host's own; the module passes them on unchanged.
//
// IPathMatcherFactory is required for controls of processes (process_control.h), which ask at each creation,
// on the thread that asks for the control. On a failure no control is made, and its code is the result.
#pragma once

#include "process_manager/types.h"
#include "zym/containers.h"
#include "zym/iobject.h"

namespace qor {

using PathList = zym::types::vector_t<NativePath>;

// Any thread. A text may be any bytes. Both operations: ZYM_OK: the text matches; ZYM_FALSE: it does not.
struct IPathMatcher : zym::IObject {
  // A whole path: the image of a process; for a mount matcher, a mount point.
  virtual zym::result_t Match(const NativePath& path) = 0;
  // A name that is no path, tested with the patterns of names alone: the name of a file; for a mount matcher,
  // the type of a file system.
  virtual zym::result_t MatchName(const NativePath& name) = 0;

 protected:
  ~IPathMatcher() = default;
};

// Any thread. A matcher doesn't change once it is made. ZYM_E_INVALID_ARGUMENT, with `matcher` left alone: a
// pattern is not in the host's language. An empty list makes a matcher that matches nothing. Of these the
// module calls CreatePathMatcher.
struct IPathMatcherFactory : zym::IObject {
  static constexpr zym::iid_t kIid = 0x38514cf7;

  // ZYM_OK: it is a pattern. ZYM_E_INVALID_ARGUMENT: it is not.
  virtual zym::result_t CheckPattern(const NativePath& pattern) = 0;
  // Texts that stand for themselves, whatever characters they hold.
  virtual zym::result_t CreateExactMatcher(const PathList& texts, IPathMatcher** matcher) = 0;
  // Directories, which stand for themselves and for all that lies below them. No pattern has a meaning in
  // them.
  virtual zym::result_t CreateTreeMatcher(const PathList& directories, IPathMatcher** matcher) = 0;
  // As CreatePathMatcher, and nothing that `exceptions` match.
  virtual zym::result_t CreateExceptingMatcher(const PathList& patterns, const PathList& exceptions,
                                               IPathMatcher** matcher) = 0;
  // Match takes a mount point, MatchName the type of a file system. Patterns of paths count for the first
  // alone, patterns of names for the second alone. What `exceptions` match doesn't match.
  virtual zym::result_t CreateMountMatcher(const PathList& excluded, const PathList& exceptions,
                                           IPathMatcher** matcher) = 0;
  // Patterns of names alone, others are refused; Match tests the last component of the path.
  virtual zym::result_t CreateNameMatcher(const PathList& patterns, IPathMatcher** matcher) = 0;
  // One pattern, as CreatePathMatcher.
  virtual zym::result_t CreatePatternMatcher(const NativePath& pattern, IPathMatcher** matcher) = 0;
  // Match tests the whole path with the patterns of paths, and its last component with the patterns of names.
  virtual zym::result_t CreatePathMatcher(const PathList& patterns, IPathMatcher** matcher) = 0;

 protected:
  ~IPathMatcherFactory() = default;
};

}  // namespace qor
