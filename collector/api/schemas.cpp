#include "api/schemas.h"

namespace {

/* clang-format off */
const schema_def schemas[] = {
    {"accepted", R"json(
{"type":"object","required":["agent","accepted"],
"properties":{"agent":{"$ref":"#/components/schemas/agent_reference"},
"accepted":{"const":true}},"additionalProperties":false})json"},
    {"added_token", R"json(
{"type":"object","required":["id","name","role","kind","made","ends","token"],
"properties":{"id":{"type":"integer","minimum":1},"name":{"type":"string"},
"role":{"enum":["viewer","operator","admin"]},"kind":{"enum":["token","session"]},
"made":{"type":["string","null"],"format":"date-time"},"ends":{"type":["string","null"],
"format":"date-time"},"token":{"type":"string",
"description":"The secret, which is shown here only."}},"additionalProperties":false})json"},
    {"admission", R"json(
{"type":"object","required":[],"properties":{"key":{"type":["string","null"],
"description":"Fingerprint of the key that is to be admitted, as `waiting` has it. Without it whichever waits is."}},
"additionalProperties":false})json"},
    {"agent", R"json(
{"type":"object","required":["id","account","name","state","since","last_poll","first_poll",
"address","version","groups","tests","identity"],"properties":{"id":{"type":"integer","minimum":1},
"account":{"type":"string"},"name":{"type":"string"},"state":{"enum":["ok","problem",
"unknown","silent"],"description":"The worst of its tests, or silent."},
"since":{"type":["string","null"],"format":"date-time"},"last_poll":{"type":["string",
"null"],"format":"date-time"},"first_poll":{"type":["string","null"],"format":"date-time"},
"address":{"type":["string","null"]},"version":{"type":["string","null"]},
"groups":{"type":"array","items":{"type":"string"}},
"tests":{"$ref":"#/components/schemas/counts"},
"identity":{"$ref":"#/components/schemas/identity_state"},"stale":{"const":true,
"description":"Unknown because nothing has come for too long."},"retired":{"type":"string",
"format":"date-time","description":"When it was."},
"inventories":{"$ref":"#/components/schemas/inventories"}},"additionalProperties":false})json"},
    {"agent_reference", R"json(
{"type":"object","required":["id","account","name"],"properties":{"id":{"type":"integer",
"minimum":1},"account":{"type":"string"},"name":{"type":"string"}},
"additionalProperties":false})json"},
    {"agents", R"json(
{"type":"object","required":["items","next"],"properties":{"items":{"type":"array",
"items":{"$ref":"#/components/schemas/agent"}},"next":{"type":["string","null"],
"description":"Where to go on; null at the end."},"incomplete":{"type":"string",
"description":"Why not everything could be read."}},"additionalProperties":false})json"},
    {"counts", R"json(
{"type":"object","required":["ok","problem","unknown"],"properties":{"ok":{"type":"integer",
"minimum":0},"problem":{"type":"integer","minimum":0},"unknown":{"type":"integer",
"minimum":0}},"additionalProperties":false})json"},
    {"definition", R"json(
{"type":"object","required":["name","since","location","fields"],
"properties":{"name":{"type":"string"},"since":{"type":"string","format":"date-time"},
"location":{"type":"integer"},"fields":{"type":"object",
"description":"By the names that the protocol has for them. Passwords are left out, but for ${secret:NAME}.",
"additionalProperties":{"type":["string","number"]}}},"additionalProperties":false})json"},
    {"event", R"json(
{"type":"object","required":["id","time","agent","test","from","to","message"],
"properties":{"id":{"type":"integer","minimum":1},"time":{"type":"string",
"format":"date-time"},"agent":{"$ref":"#/components/schemas/agent_reference"},
"test":{"anyOf":[{"$ref":"#/components/schemas/test_reference"},{"type":"null"}],
"description":"Null: of the agent itself."},"from":{"enum":["ok","problem","unknown",
"silent"]},"to":{"enum":["ok","problem","unknown","silent"]},"message":{"type":"string"},
"stale":{"const":true,"description":"Unknown because nothing has come for too long."}},
"additionalProperties":false})json"},
    {"events", R"json(
{"type":"object","required":["items","next"],"properties":{"items":{"type":"array",
"items":{"$ref":"#/components/schemas/event"}},"next":{"type":["string","null"],
"description":"Where to go on; null at the end."},"incomplete":{"type":"string",
"description":"Why not everything could be read."}},"additionalProperties":false})json"},
    {"health", R"json(
{"type":"object","required":["status"],"properties":{"status":{"const":"ok"},
"version":{"type":"string"},"name":{"type":"string"},
"role":{"enum":["viewer","operator","admin"]}},"additionalProperties":false})json"},
    {"identity_state", R"json(
{"enum":["unknown","waiting","invited","known","proven","revoked"],
"description":"Of a name. waiting: has asked and is not let in; invited: a token for it has not been used; known: admitted, has shown no certificate yet; proven: has; revoked; unknown: nobody has decided anything."})json"},
    {"inventories", R"json(
{"type":"object","additionalProperties":{"type":"object","required":["time","items"],
"properties":{"time":{"type":"string","format":"date-time"},"items":{"type":"array",
"items":{"type":"string"}},"left_out":{"type":"integer","minimum":1,
"description":"How many more there were than an answer has room for."}},
"additionalProperties":false}})json"},
    {"invitation", R"json(
{"type":"object","required":["account","name","state","ends","url","authority","token",
"command"],"properties":{"account":{"type":"string"},"name":{"type":"string"},
"state":{"$ref":"#/components/schemas/identity_state"},"ends":{"type":"string",
"format":"date-time"},"url":{"type":"string","description":"Where agents poll."},
"authority":{"type":"string",
"description":"Fingerprint of the authority that the server is verified with."},
"token":{"type":"string","description":"The secret, which is shown here only."},
"command":{"type":"string","description":"What is typed on the host, as root."}},
"additionalProperties":false})json"},
    {"ledger", R"json(
{"type":"object","required":["items","next"],"properties":{"items":{"type":"array",
"items":{"$ref":"#/components/schemas/ledger_hour"}},"next":{"type":["string","null"],
"description":"Where to go on; null at the end."},"incomplete":{"type":"string",
"description":"Why not everything could be read."}},"additionalProperties":false})json"},
    {"ledger_hour", R"json(
{"type":"object","required":["agent","hour","expected","received","repeated","missing"],
"properties":{"agent":{"$ref":"#/components/schemas/agent_reference"},
"hour":{"type":"string","format":"date-time"},"expected":{"type":"integer","minimum":0,
"description":"Received and missing."},"received":{"type":"integer","minimum":0},
"repeated":{"type":"integer","minimum":0},"missing":{"type":"integer","minimum":0}},
"additionalProperties":false})json"},
    {"live_agent", R"json(
{"type":"object","description":"How an agent stands, as the stream has it.",
"required":["id","account","name","state","since","tests"],
"properties":{"id":{"type":"integer","minimum":1},"account":{"type":"string"},
"name":{"type":"string"},"state":{"enum":["ok","problem","unknown","silent"],
"description":"The worst of its tests, or silent."},"since":{"type":["string","null"],
"format":"date-time"},"tests":{"$ref":"#/components/schemas/counts"},"stale":{"const":true,
"description":"Unknown because nothing has come for too long."},"retired":{"type":"string",
"format":"date-time","description":"It was retired, at that time."}},
"additionalProperties":false})json"},
    {"live_result", R"json(
{"type":"object","description":"A result as the stream has it: without its parts.",
"required":["time","received","state","status","message","values","location","agent",
"test"],"properties":{"time":{"type":"string","format":"date-time"},
"received":{"type":"string","format":"date-time"},"state":{"enum":["ok","problem",
"unknown"]},"status":{"type":["string","null"]},"message":{"type":"string"},
"values":{"$ref":"#/components/schemas/values"},"location":{"type":["integer","null"]},
"agent":{"$ref":"#/components/schemas/agent_reference"},
"test":{"$ref":"#/components/schemas/test_reference"}},"additionalProperties":false})json"},
    {"metrics", R"json(
{"type":"string","description":"OpenMetrics 1.0, or Prometheus' text format 0.0.4."})json"},
    {"new_token", R"json(
{"type":"object","required":["name","role"],"properties":{"name":{"type":"string",
"minLength":1,"maxLength":100},"role":{"enum":["viewer","operator","admin"]},
"ends":{"type":["string","null"],"format":"date-time"}},"additionalProperties":false})json"},
    {"open_api", R"json(
{"type":"object","required":["openapi","info","paths"]})json"},
    {"part", R"json(
{"type":"object",
"description":"A process, a processor, an object, a row, a value of a query, or a host that was found.",
"required":["name","status","message","values"],"properties":{"name":{"type":"string"},
"status":{"type":["string","null"]},"message":{"type":["string","null"]},
"values":{"$ref":"#/components/schemas/values"}},"additionalProperties":false})json"},
    {"problem", R"json(
{"type":"object","required":["type","title","status","detail","errors"],
"properties":{"type":{"type":"string"},"title":{"type":"string"},
"status":{"type":"integer"},"detail":{"type":"string"},"errors":{"type":"array",
"items":{"type":"object","required":["line","column","text"],
"properties":{"line":{"type":"integer"},"column":{"type":"integer"},
"text":{"type":"string"}},"additionalProperties":false}}},"additionalProperties":false})json"},
    {"readiness", R"json(
{"type":"object","required":["status","notes"],"properties":{"status":{"const":"ready"},
"notes":{"type":"array","items":{"type":"string"}}},"additionalProperties":false})json"},
    {"result", R"json(
{"type":"object","required":["time","received","state","status","message","values",
"location","parts"],"properties":{"time":{"type":"string","format":"date-time"},
"received":{"type":"string","format":"date-time"},"state":{"enum":["ok","problem",
"unknown"]},"status":{"type":["string","null"]},"message":{"type":"string"},
"values":{"$ref":"#/components/schemas/values"},"location":{"type":["integer","null"]},
"parts":{"type":"array","items":{"$ref":"#/components/schemas/part"}},
"parts_left_out":{"const":true,"description":"There were more than an answer has room for."}},
"additionalProperties":false})json"},
    {"results", R"json(
{"type":"object","required":["items","next"],"properties":{"items":{"type":"array",
"items":{"$ref":"#/components/schemas/result"}},"next":{"type":["string","null"],
"description":"Where to go on; null at the end."},"incomplete":{"type":"string",
"description":"Why not everything could be read."}},"additionalProperties":false})json"},
    {"secret", R"json(
{"type":"object","required":["name","made","by","readable","used"],
"properties":{"name":{"type":"string"},"made":{"type":["string","null"],"format":"date-time",
"description":"When this value was set."},"by":{"type":"string",
"description":"The token of who set it."},"readable":{"type":"boolean",
"description":"False: the key that is there does not open it; tests with it are not sent."},
"used":{"type":"integer","minimum":0,"description":"Lines of the plan that use it."}},
"additionalProperties":false})json"},
    {"secret_value", R"json(
{"type":"object","required":["value"],"properties":{"value":{"type":"string","minLength":1,
"maxLength":4096,"description":"UTF-8 without control characters."}},
"additionalProperties":false})json"},
    {"secrets", R"json(
{"type":"object","required":["items","next"],"properties":{"items":{"type":"array",
"items":{"$ref":"#/components/schemas/secret"}},"next":{"type":["string","null"],
"description":"Where to go on; null at the end."},"incomplete":{"type":"string",
"description":"Why not everything could be read."}},"additionalProperties":false})json"},
    {"series", R"json(
{"type":"object","required":["test","from","to","resolution","time","count","values",
"state","definitions"],"properties":{"test":{"type":"integer","minimum":1},
"from":{"type":"string","format":"date-time"},"to":{"type":"string","format":"date-time"},
"resolution":{"type":"integer","minimum":0,
"description":"Seconds that a point has; 0: each result is one."},"time":{"type":"array",
"items":{"type":"string","format":"date-time"}},"count":{"type":"array",
"items":{"type":"integer","minimum":0}},"values":{"type":"object",
"additionalProperties":{"type":"object","required":["unit","min","mean","max"],
"properties":{"unit":{"type":"string"},"min":{"type":"array","items":{"type":["number",
"null"]}},"mean":{"type":"array","items":{"type":["number","null"]}},"max":{"type":"array",
"items":{"type":["number","null"]}}},"additionalProperties":false}},
"state":{"type":"object","required":["ok","problem","unknown"],
"properties":{"ok":{"type":"array","items":{"type":"integer","minimum":0}},
"problem":{"type":"array","items":{"type":"integer","minimum":0}},"unknown":{"type":"array",
"items":{"type":"integer","minimum":0}}},"additionalProperties":false,
"description":"Seconds."},"definitions":{"type":"array",
"items":{"$ref":"#/components/schemas/definition"},
"description":"What the test was in that time."},"incomplete":{"type":"string",
"description":"Why not everything could be read."}},"additionalProperties":false})json"},
    {"sign_in", R"json(
{"type":"object","required":[],"properties":{"token":{"type":"string"},
"link":{"type":"string"}},"additionalProperties":false,"minProperties":1,"maxProperties":1})json"},
    {"standing", R"json(
{"type":"object","required":["account","name","agent","state","admitted","by","revoked",
"certificate","waiting","invited"],"properties":{"account":{"type":"string"},
"name":{"type":"string"},"agent":{"type":["integer","null"],"minimum":1,
"description":"Its id; null when it has never polled."},
"state":{"$ref":"#/components/schemas/identity_state"},"admitted":{"type":["string","null"],
"format":"date-time","description":"Since when it is."},"by":{"type":["string","null"],
"description":"The token of who admitted, invited or revoked it last."},
"revoked":{"type":["string","null"],"format":"date-time","description":"Since when it is."},
"certificate":{"anyOf":[{"$ref":"#/components/schemas/standing_certificate"},{"type":"null"}]},
"waiting":{"anyOf":[{"$ref":"#/components/schemas/standing_waiting"},{"type":"null"}]},
"invited":{"type":"boolean","description":"There is a token for it that has not been used."},
"needs_certificate":{"const":true,
"description":"It is admitted, and has to show a certificate before it is let in."}},
"additionalProperties":false})json"},
    {"standing_certificate", R"json(
{"type":"object","required":["issued","ends","key","authority","ends_soon"],
"description":"That was given out last.","properties":{"issued":{"type":["string","null"],
"format":"date-time"},"ends":{"type":"string","format":"date-time"},"key":{"type":"string",
"description":"Fingerprint of its key."},"authority":{"type":"string",
"description":"Fingerprint of the authority that signed it."},"ends_soon":{"type":"boolean",
"description":"In less than 30 days, or it has ended: it should have been renewed."}},
"additionalProperties":false})json"},
    {"standing_waiting", R"json(
{"type":"object","required":["since","last","address","key","contested"],"properties":{"since":{
"type":["string","null"],"format":"date-time"},"last":{"type":["string","null"],
"format":"date-time"},"address":{"type":["string","null"],
"description":"Where it asked from last."},"key":{"type":["string","null"],
"description":"Fingerprint of the key that it wants certified; null when it only polls."},
"contested":{"type":"boolean",
"description":"Within ten minutes another key has asked under this name, too, or another one has proven to be its: say which one is admitted."}},
"additionalProperties":false})json"},
    {"standings", R"json(
{"type":"object","required":["items","next"],"properties":{"items":{"type":"array",
"items":{"$ref":"#/components/schemas/standing"}},"next":{"type":["string","null"],
"description":"Where to go on; null at the end."},"incomplete":{"type":"string",
"description":"Why not everything could be read."}},"additionalProperties":false})json"},
    {"stream", R"json(
{"type":"string"})json"},
    {"test", R"json(
{"type":"object","required":["id","agent","group","type","number","name","target","state",
"since","time","status","message","values","definition"],
"properties":{"id":{"type":"integer","minimum":1},
"agent":{"$ref":"#/components/schemas/agent_reference"},"group":{"type":["string","null"]},
"type":{"type":"string"},"number":{"type":["integer","null"]},"name":{"type":"string"},
"target":{"type":["string","null"],"description":"What it looks at."},"state":{"enum":["ok",
"problem","unknown"]},"since":{"type":["string","null"],"format":"date-time"},
"time":{"type":["string","null"],"format":"date-time","description":"Of its last result."},
"status":{"type":["string","null"]},"message":{"type":["string","null"]},
"values":{"$ref":"#/components/schemas/values"},
"definition":{"anyOf":[{"$ref":"#/components/schemas/definition"},{"type":"null"}]},
"stale":{"const":true,"description":"Unknown because nothing has come for too long."},
"incomplete":{"type":"string","description":"Why not everything could be read."}},
"additionalProperties":false})json"},
    {"test_reference", R"json(
{"type":"object","required":["id","type","number","name"],
"properties":{"id":{"type":"integer","minimum":1},"type":{"type":"string"},
"number":{"type":["integer","null"]},"name":{"type":"string"}},"additionalProperties":false})json"},
    {"tests", R"json(
{"type":"object","required":["items","next"],"properties":{"items":{"type":"array",
"items":{"$ref":"#/components/schemas/test"}},"next":{"type":["string","null"],
"description":"Where to go on; null at the end."},"incomplete":{"type":"string",
"description":"Why not everything could be read."}},"additionalProperties":false})json"},
    {"text", R"json(
{"type":"string"})json"},
    {"token", R"json(
{"type":"object","required":["id","name","role","kind","made","ends"],
"properties":{"id":{"type":"integer","minimum":1},"name":{"type":"string"},
"role":{"enum":["viewer","operator","admin"]},"kind":{"enum":["token","session"]},
"made":{"type":["string","null"],"format":"date-time"},"ends":{"type":["string","null"],
"format":"date-time"}},"additionalProperties":false})json"},
    {"tokens", R"json(
{"type":"object","required":["items","next"],"properties":{"items":{"type":"array",
"items":{"$ref":"#/components/schemas/token"}},"next":{"type":["string","null"],
"description":"Where to go on; null at the end."},"incomplete":{"type":"string",
"description":"Why not everything could be read."}},"additionalProperties":false})json"},
    {"value", R"json(
{"type":"object","required":["value","unit"],"properties":{"value":{"type":["number",
"string","null"]},"unit":{"type":"string"}},"additionalProperties":false})json"},
    {"values", R"json(
{"type":"object","additionalProperties":{"$ref":"#/components/schemas/value"}})json"},
};
/* clang-format on */

} // namespace

std::span<const schema_def> all_schemas() {
    return schemas;
}
