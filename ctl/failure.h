/* What ends the program before its work is done, and the exit status of every end. */
#ifndef VINDRAL_CTL_FAILURE_H
#define VINDRAL_CTL_FAILURE_H

#include <string>

enum exit_status : int {
    status_well = 0,
    status_wrong = 1, /* --fail found something; the collector could not do it; not all was read */
    status_usage = 2, /* the command line, or a parameter, is not as it has to be */
    status_unreached = 3, /* no connection, no trust in it, or no sensible answer */
    status_refused = 4,   /* no token, or not one that may */
    status_absent = 5     /* there is no such agent, test or token */
};

/* Thrown; main() prints the text, which is printable, and ends with the status. */
struct failure {
    int status = status_wrong;
    std::string text;
};

#endif
