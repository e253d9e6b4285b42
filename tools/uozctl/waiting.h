// uozctl's blocking library calls: each runs with a progress indicator on a
// terminal and under the user's --timeout. The indicator never delays the
// end of the call: it is woken, not waited out.
#ifndef UOZ_TOOLS_UOZCTL_WAITING_H
#define UOZ_TOOLS_UOZCTL_WAITING_H

#include <functional>

#include "session.h"

namespace uozctl {

// Runs `call` (a library operation of the session) and gives its result.
// When no reply has come after a moment, the broker and the server are
// looked at once (Session::explain_silence): a reply that cannot come is told
// then, with its reason. When --timeout passes first, the tool says "no
// reply". Either way the process ends at once with the failure's exit code:
// the call cannot be cancelled, and the end of the process releases what it
// holds.
int call_with_timeout(const Session &session, const char *what, std::function<int()> call);

}  // namespace uozctl

#endif
