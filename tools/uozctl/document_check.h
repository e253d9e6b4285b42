// Checks a remote command document before it is sent, so that a mistake is
// named instead of coming back as an ECU's negative response.
#ifndef UOZ_TOOLS_UOZCTL_DOCUMENT_CHECK_H
#define UOZ_TOOLS_UOZCTL_DOCUMENT_CHECK_H

#include <time.h>

#include <string>

#include "config_check.h"

namespace uozctl {

// Empty when the document can be sent; otherwise what is wrong, naming the
// field ("commands[1].command: no pre-defined routine 'ReadVIM' ...").
// now is the time the validity period is checked against.
std::string check_document(const std::string &text, const ConfigReport &config, time_t now);

}  // namespace uozctl

#endif
