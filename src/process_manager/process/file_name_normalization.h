// The normalisation of file names.
#pragma once

#include "zym/containers.h"

namespace qor::process_manager {

// Normalises `name` in place, by its text alone (file_name_mapper.h has the rule). It looks at each
// character once and gets longer by at most one character. Throws only std::bad_alloc.
void NormalizeFileName(zym::types::string16_t& name);

}  // namespace qor::process_manager
