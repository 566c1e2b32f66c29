/* What the web server answers itself: sockets and cookies are nothing of this room. The stream
 * comes first. */
#include "api/parameters.h"
#include "api/resources.h"

namespace {

const parameter_def stream_parameters[] = {
    agent_parameter,
    {.name = "test", .kind = parameter_kind::id, .text = "Only of this test."},
    {.name = "kind",
     .kind = parameter_kind::choice,
     .text = "Only messages of these kinds.",
     .choices = "result|event|agent|change",
     .many = true},
    {.name = "result_agent",
     .kind = parameter_kind::id,
     .text = "Results only of these agents; everything else is of all. With `result_test`: of "
             "either.",
     .many = true},
    {.name = "result_test",
     .kind = parameter_kind::id,
     .text = "Results only of these tests, likewise.",
     .many = true}};

const route rows[] = {
    {.method = "GET",
     .pattern = "/api/v1/stream",
     .least = role::viewer,
     .summary = "What is stored from now on, as server-sent events: `event` is result, event, "
                "agent or change, `data` a line of JSON (live_result, event, live_agent, change). "
                "Who comes back "
                "with Last-Event-ID gets what was missed, or the event \"lost\".",
     .parameters = stream_parameters,
     .takes = "",
     .answers = "stream",
     .status = 200,
     .handler = nullptr,
     .is_stream = true,
     .type = "text/event-stream"},
    {.method = "GET",
     .pattern = "/",
     .least = role::none,
     .summary = "A page for people, which signs a browser in.",
     .parameters = {},
     .takes = "",
     .answers = "text",
     .status = 200,
     .handler = nullptr,
     .type = "text/html"},
    {.method = "POST",
     .pattern = "/sign-in",
     .least = role::none,
     .summary = "Begins a session with a token or the secret of a one-time link, one of them; the "
                "answer has its cookie. 401 for what does not sign in, whatever is wrong with it; "
                "429 after 20 of these a minute from an address.",
     .parameters = {},
     .takes = "sign_in",
     .answers = "",
     .status = 204,
     .handler = nullptr,
     .session = session_change::begins},
    {.method = "POST",
     .pattern = "/sign-out",
     .least = role::none,
     .summary = "Ends the session whose cookie is sent, if any; 400 with a token, which does not "
                "end.",
     .parameters = {},
     .takes = "",
     .answers = "",
     .status = 204,
     .handler = nullptr,
     .session = session_change::ends}};

} // namespace

std::span<const route> web_routes() {
    return rows;
}
