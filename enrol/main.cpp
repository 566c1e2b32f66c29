/* vindral-enrol: gives a host a certificate by which its agent proves who it is, and keeps it good.
 */
#include "ctl/failure.h"
#include "enrol/enrolment.h"
#include "enrol/options.h"
#include "enrol/renewal.h"
#include "enrol/steps.h"
#include "enrol/waiting.h"

#include <cstdio>
#include <exception>
#include <sys/stat.h>

static int run(const options& said) {
    switch (said.does) {
    case errand::enrol:
        return enrol(said);
    case errand::renew:
        return renew(said);
    case errand::show:
        return show(said);
    case errand::help:
        fputs(help_text(), stdout);
        return status_well;
    case errand::version:
        puts("vindral-enrol " VINDRAL_VERSION);
        return status_well;
    }
    return status_usage;
}

int main(int argc, char** argv) {
    umask(077);
    try {
        const options said = read_options(argc, argv);
        hide_token(argc, argv);
        catch_stops();
        return run(said);
    } catch (const failure& f) {
        complain(f.text);
        if (f.status == status_usage) {
            complain("\"vindral-enrol --help\" says how it is used");
        }
        return f.status == status_usage ? status_usage : status_wrong;
    } catch (const stopped& s) {
        complain("Stopped.");
        return 128 + s.signal;
    } catch (const std::exception& e) { /* no memory */
        complain(e.what());
    }
    return status_wrong;
}
