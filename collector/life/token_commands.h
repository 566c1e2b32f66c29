/* vindral-collector token and link: who may ask the API. They work on the settings in the state
 * directory, whether a collector runs there or not, and before its first start. A secret is printed
 * on standard output, once, what is for people on standard error. Each returns the exit status of
 * the program. */
#ifndef VINDRAL_COLLECTOR_TOKEN_COMMANDS_H
#define VINDRAL_COLLECTOR_TOKEN_COMMANDS_H

#include "life/options.h"
#include "store/settings.h"

#include <string>

/* 0, or 1 when nothing was changed. */
int run_add_token(const options& o);
int run_remove_token(const options& o);

/* 0, or 1 when they cannot be read. */
int run_list_tokens(const options& o);

/* 0, or 1 when there is none. */
int run_make_link(const options& o);

/* What a running collector leaves for `link`: where its API is. In the state directory. */
std::string url_file(const std::string& state_dir);

/* "URL/#link=vl_...", signed in as `role_word` ("": admin); empty with one line in `error`. */
std::string make_link(settings& kept, const std::string& url, const std::string& as,
                      std::string& error);

/* Whether nobody can sign in yet. */
bool has_no_token(settings& kept);

#endif
