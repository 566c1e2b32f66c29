/* What the commands do, a function each; which is which stands in commands.cpp. */
#ifndef VINDRAL_CTL_HANDLERS_H
#define VINDRAL_CTL_HANDLERS_H

#include "ctl/place.h"

int run_agents(const place& here);
int run_show_agent(const place& here);
int run_retire_agent(const place& here);
int run_list_waiting(const place& here);
int run_admit(const place& here);
int run_refuse(const place& here);
int run_enrol(const place& here);
int run_revoke(const place& here);
int run_check(const place& here);
int run_tests(const place& here);
int run_show_test(const place& here);
int run_results(const place& here);
int run_series(const place& here);
int run_events(const place& here);
int run_ledger(const place& here);
int run_watch(const place& here);
int run_list_tokens(const place& here);
int run_add_token(const place& here);
int run_remove_token(const place& here);
int run_list_secrets(const place& here);
int run_set_secret(const place& here);
int run_remove_secret(const place& here);
int run_check_fleet(const place& here);
int run_diff_fleet(const place& here);
int run_apply_fleet(const place& here);
int run_export_fleet(const place& here);
int run_fleet_status(const place& here);
int run_roll_back_fleet(const place& here);
int run_fleet_schema(const place& here);
int run_fleet_log(const place& here);
int run_changes(const place& here);
int run_version(const place& here);

#endif
