#include "fleet/assigned.h"
#include "plan/line.h"
#include "plan/placeholder.h"

namespace {

using protocol::command_def;

/* An agent logs an error when it is to add a test that it has. */
bool must_be_new(const test_kind& kind) {
    uint32_t list = kind.add->list;
    return list == protocol::process.code || list == protocol::network.code;
}

bool has_secrets(const assigned_test& test) {
    const std::vector<std::string>& fields = test.its_fields();
    return std::any_of(fields.begin(), fields.end(), [](const std::string& field) {
        placeholder at;
        return find_placeholder(field, 0, at);
    });
}

bool is_sent(const assigned_test& test, bool proven) {
    return test.number != 0 && test.impossible.empty() && test.kind != nullptr &&
           !test.its_fields().empty() && (proven || !has_secrets(test));
}

/* Whatever an expansion did, a line is one line, with as many fields as before. */
bool is_still_one(std::string_view line, std::string_view expanded) {
    bool control = std::any_of(expanded.begin(), expanded.end(), [](char c) {
        return (static_cast<unsigned char>(c) < ' ' && c != '\t') || c == '\x7f';
    });
    return !control && expanded.size() <= longest_plan_line &&
           std::count(line.begin(), line.end(), '\t') ==
               std::count(expanded.begin(), expanded.end(), '\t');
}

/* Makes the lines of an answer. */
class answer_text {
public:
    explicit answer_text(const expand_function& expand) : expand_(expand) {}

    std::string take() { return std::move(text_); }

    void interval(const char* code, int32_t seconds) {
        if (seconds > 0) {
            text_ += std::string(code) + "\t0\t" + std::to_string(seconds) + "\n";
        }
    }

    void removal(uint32_t type, int32_t number) {
        const test_kind* kind = kind_of_record(type);
        if (kind == nullptr || number == 0) {
            return;
        }
        text_ += std::string(kind->remove->code) + "\t" + std::to_string(number);
        for (size_t fields = 2; fields < kind->remove->least; ++fields) {
            text_ += "\t0";
        }
        text_ += "\n";
    }

    void removal(const assigned_test& test) { removal(test.kind->record->code, test.number); }

    /* The fields behind the code, with the values of secrets; none when it cannot be sent. */
    std::optional<std::string> fields_of(const assigned_test& test) const {
        std::string line =
            "\t" + std::to_string(test.number) + "\t" + std::to_string(test.revision);
        for (const std::string& field : test.its_fields()) {
            line += "\t";
            line += field;
        }
        constexpr size_t code = 3;
        std::optional<std::string> expanded =
            has_secrets(test) ? expand_(line) : std::optional<std::string>(line);
        bool sound = expanded && expanded->size() + code <= longest_plan_line &&
                     is_still_one(line, *expanded);
        return sound ? expanded : std::nullopt;
    }

    void line(const command_def& command, const std::string& fields) {
        text_ += command.code;
        text_ += fields;
        text_ += "\n";
    }

    void both(const assigned_test& test, bool adds, bool modifies) {
        if (!adds && !modifies) {
            return;
        }
        std::optional<std::string> fields = fields_of(test);
        if (!fields) {
            return;
        }
        if (adds) {
            line(*test.kind->add, *fields);
        }
        if (modifies) {
            line(*test.kind->modify, *fields);
        }
    }

private:
    const expand_function& expand_;
    std::string text_;
};

void removals_after(answer_text& answer, const assigned_agent& now, int32_t from) {
    for (const removed_test& test : now.removed) {
        if (test.revision > from && !test.is_over) {
            answer.removal(test.type, test.number);
        }
    }
}

/* Of an agent that ran when it logged in. */
void put_right(answer_text& answer, const assigned_test& test) {
    bool is_known = test.confirmed >= test.added, is_up = test.confirmed == test.revision;
    if (must_be_new(*test.kind) && is_known) {
        if (std::optional<std::string> fields = answer.fields_of(test)) {
            answer.removal(test);
            answer.line(*test.kind->add, *fields);
        }
    } else if (test.kind->runs_once) {
        answer.both(test, !is_up, !is_up && test.revision > test.added);
    } else {
        answer.both(test, true, !is_up);
    }
}

} // namespace

std::string commands_after(const assigned_agent& now, int32_t from, bool proven,
                           const expand_function& expand) {
    if (now.newest <= from) {
        return "";
    }
    answer_text answer(expand);
    removals_after(answer, now, from);
    answer.interval("POL", now.poll_revision > from ? now.poll : 0);
    answer.interval("CHK", now.check_revision > from ? now.check : 0);
    for (const assigned_test& test : now.tests) {
        if (test.revision > from && is_sent(test, proven)) {
            /* What was added after `from` may have arrived, and been another then. And what has
             * secrets may not have been sent for the lack of them. */
            bool adds = test.added > from || test.returned > from ||
                        (test.confirmed < test.added && has_secrets(test));
            answer.both(test, adds, test.revision > test.added);
        }
    }
    return answer.take();
}

std::string commands_for_login(const assigned_agent& now, bool has_run, bool proven,
                               const expand_function& expand) {
    answer_text answer(expand);
    if (has_run) {
        removals_after(answer, now, 0);
    }
    answer.interval("POL", now.poll);
    answer.interval("CHK", now.check);
    for (const assigned_test& test : now.tests) {
        if (!is_sent(test, proven)) {
            continue;
        }
        if (has_run) {
            put_right(answer, test);
        } else {
            answer.both(test, true, false);
        }
    }
    return answer.take();
}

std::string commands_for_check(const assigned_agent& now, bool proven,
                               const expand_function& expand) {
    answer_text answer(expand);
    for (const assigned_test& test : now.tests) {
        if (is_sent(test, proven) && !test.kind->runs_once) {
            answer.both(test, false, true);
        }
    }
    return answer.take();
}

std::string commands_for_test(const assigned_agent&, const assigned_test& test, bool proven,
                              const expand_function& expand) {
    answer_text answer(expand);
    if (is_sent(test, proven)) {
        answer.both(test, true, !test.kind->runs_once || test.revision > test.added);
    }
    return answer.take();
}
