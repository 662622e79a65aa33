// `vektctl status` as a person reads it: a summary on top, then one row per interface.
// A pure function of the document, so a document from an older or newer daemon (a field
// missing, one added) still prints, with "-" where a value is absent.
#pragma once

#include <string>

#include "json_value.h"

namespace vektctl {

std::string formatStatusTable(const JsonValue& status);

}  // namespace vektctl
