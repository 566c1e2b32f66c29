#include "plan/commands_for_agents.h"

#include "base/text.h"

commands_for_agents::commands_for_agents(plan& lines, known_tests earlier, log_function log)
    : lines_(lines), earlier_(std::move(earlier)),
      log_(log ? std::move(log) : [](const std::string&) {}) {}

void commands_for_agents::tell_kept_back(const session& of) const {
    log_(event::session, printable(of.agent) + " of " + printable(of.account) +
                             " is not told of tests with secrets (" +
                             std::to_string(lines_.secret_tests_count()) +
                             "): it has not proven who it is");
}

told_commands commands_for_agents::for_login(const session& of) {
    if (!of.proven && lines_.secret_tests_count() > 0) {
        tell_kept_back(of);
    }
    return {.text = of.running
                        ? lines_.text_for_running(earlier_.of(of.account, of.agent), of.proven)
                        : lines_.text_for_new(of.proven),
            .upto = lines_.newest()};
}

told_commands commands_for_agents::after(const session& of, uint64_t serial) {
    if (!of.proven && serial < lines_.newest() && lines_.has_secrets_after(serial)) {
        tell_kept_back(of);
    }
    return {.text = lines_.text_after(serial, of.proven), .upto = lines_.newest()};
}
