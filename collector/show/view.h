/* What an output looks like: one of these for each kind. */
#ifndef VINDRAL_COLLECTOR_VIEW_H
#define VINDRAL_COLLECTOR_VIEW_H

#include "ingest/test_names.h"
#include "show/event_queue.h"
#include "show/output_kind.h"

#include <memory>
#include <string>
#include <string_view>

/* Turns events into bytes for the reader. Used by the output's thread alone but for the two that
 * say what it wants. */
class view {
public:
    virtual ~view() = default;
    virtual bool shows_records() const { return true; }
    virtual bool keeps_state() const { return false; } /* and writes in refresh() only */
    /* Both append to `out`; a problem that the view does not show goes to `problems` instead. */
    virtual void show_record(const event& e, std::string& out) = 0;
    virtual void show_problem(std::string_view text, std::string& out, std::string& problems) = 0;
    virtual void show_note(std::string_view text, std::string& out, std::string& problems) {
        show_problem(text, out, problems);
    }
    /* The other kinds. */
    virtual void take(const event& e) { (void)e; }
    /* Called after each batch and at least every half second. */
    virtual void refresh(std::string& out) { (void)out; }
    /* Called once, after everything else. */
    virtual void finish(std::string& out) { (void)out; }
};

/* All kinds but the table; and that, for a terminal. The names outlive them, and are to be
 * printable (late_names.h). */
std::unique_ptr<view> make_line_view(output_kind kind, const test_names& names);
std::unique_ptr<view> make_table_view(int fd, const test_names& names);

#endif
