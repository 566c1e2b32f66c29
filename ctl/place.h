/* What a command has to work with. */
#ifndef VINDRAL_CTL_PLACE_H
#define VINDRAL_CTL_PLACE_H

#include "ctl/api.h"
#include "ctl/given.h"
#include "ctl/screen.h"

#include <cstdint>

/* Rows go to standard output, all else to standard error. */
struct place {
    const given& said;
    api& with;
    const screen& on;
    int64_t now; /* seconds */
};

#endif
