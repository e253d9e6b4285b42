// uozctl's blocking library calls: each runs with a progress indicator on a
// terminal and under the user's --timeout. The indicator never delays the
// end of the call: it is woken, not waited out.
#ifndef UOZ_TOOLS_UOZCTL_WAITING_H
#define UOZ_TOOLS_UOZCTL_WAITING_H

#include <functional>

#include "session.h"

namespace uozctl {

// Runs `call` (a library operation) and gives its result. When --timeout
// passes first, the tool says "no reply" (who: "diagnostic agent") and the
// process ends at once with exit code 3: the call cannot be cancelled, and
// the end of the process releases what it holds.
int call_with_timeout(const Context &context, const char *what, const char *who,
                      std::function<int()> call);

}  // namespace uozctl

#endif
