/* An SNMP library for the tests of its loading: the names alone. */
#define NAME(name)                                                                                 \
    extern "C" void name() {}
NAME(init_snmp)
NAME(generate_Ku)
NAME(snmp_open)
NAME(snmp_close)
NAME(snmp_sess_init)
NAME(snmp_shutdown)
NAME(snmp_pdu_create)
NAME(snmp_add_null_var)
NAME(snmp_free_pdu)
NAME(snmp_synch_response)
NAME(sprint_realloc_variable)
NAME(snmp_error)
NAME(snmp_parse_oid)
NAME(snmp_api_errstring)
NAME(snmp_errstring)
NAME(snmp_enable_filelog)
NAME(sprint_realloc_objid)
NAME(sprint_realloc_value)
NAME(snmp_strcat)
NAME(get_tree)
NAME(netsnmp_ds_toggle_boolean)
NAME(snmp_disable_log)
NAME(get_logh_head)
NAME(netsnmp_remove_loghandler)
NAME(netsnmp_ds_set_boolean)
NAME(snmp_disable_syslog)
NAME(snmp_disable_filelog)
NAME(snmp_disable_stderrlog)
NAME(snmp_disable_calllog)
NAME(netsnmp_register_loghandler)
NAME(snmp_oid_compare)
NAME(snmp_fix_pdu)
#ifndef WITHOUT_TREE_HEAD
NAME(get_tree_head)
#endif

extern "C" {
unsigned long usmHMACSHA1AuthProtocol[10] = {1, 3, 6, 1, 6, 3, 10, 1, 1, 3};
unsigned long usmAESPrivProtocol[10] = {1, 3, 6, 1, 6, 3, 10, 1, 2, 4};
}
