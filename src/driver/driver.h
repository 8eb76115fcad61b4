// The privdiag command: argument handling, the start-up order and exit
// statuses. privdiag_main runs the whole tool on the session's streams and
// returns the exit status; fatal conditions inside the library arrive here as
// fatal_exit.
#pragma once

#include "base/session.h"

namespace pd {

int privdiag_main(session& s, int argc, char** argv);

}  // namespace pd
