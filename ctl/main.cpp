/* vindralctl: asks a collector by its API. */
#include "ctl/api.h"
#include "ctl/failure.h"
#include "ctl/options.h"
#include "ctl/output.h"

#include <clocale>
#include <ctime>
#include <exception>

static int run(const command_line& line) {
    api with(access_of(line.said));
    const screen on = look_at_screen(line.said.ascii, line.said.no_color);
    return line.command->run({line.said, with, on, time(nullptr)});
}

int main(int argc, char** argv) {
    setlocale(LC_CTYPE, "");
    tzset();
    try {
        const command_line line = read_command_line(argc, argv);
        hide_token(argc, argv);
        switch (line.outcome) {
        case reading::run:
            return run(line);
        case reading::show:
            put(line.text);
            return status_well;
        case reading::wrong:
            tell(line.text + "\n\"" + line.help + "\" says what there is");
            return status_usage;
        }
    } catch (const failure& f) {
        tell(f.text);
        return f.status;
    } catch (const std::exception& e) { /* no memory */
        tell(e.what());
    }
    return status_wrong;
}
