/* The ways in which results are shown. */
#ifndef VINDRAL_COLLECTOR_OUTPUT_KIND_H
#define VINDRAL_COLLECTOR_OUTPUT_KIND_H

enum class output_kind {
    table,    /* the state of all hosts and tests, redrawn in place; for a terminal */
    plain,    /* a readable line per record */
    json,     /* a JSON object per line and record */
    problems, /* as plain, but only what is not ok: when it begins, becomes another and ends */
    quiet     /* no results, only problems */
};

#endif
