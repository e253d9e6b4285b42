// The shared library's own translation unit: the exported operations live in
// the core archive, which is linked whole; this file only anchors the target.
#include "udsoverzelko.h"
