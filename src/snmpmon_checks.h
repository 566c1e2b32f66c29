/* What a child process of the SNMP checker does for one test: a get, a table or a walk. */
#ifndef VINDRAL_SNMPMON_CHECKS_H
#define VINDRAL_SNMPMON_CHECKS_H

#include "snmpmon_lib.h"
#include "udc.h"

/* A column of a table, as the MIB tree knows it. */
struct column {
    oid subid;
    char* label;
    int type_val; /* MIB parser type */
    int type_asn; /* ASN.1 tag when known, else 0 */
};

int do_single_full_check(snmp_def* def_snmp, char** data, int* data_size);
int do_single_full_table_check(snmp_def* def_snmp, char** pData, int* data_size);
int do_single_full_table_bulk_check(snmp_def* def_snmp, char** pData, int* data_size);
char* do_single_full_walk_check(snmp_def* def_snmp);
char* do_single_full_walk_bulk_check(snmp_def* def_snmp);

int process_vars(netsnmp_variable_list* vars_ret, int* _type, char** _sval, long* min_val,
                 long* max_val);
void escape_data(char** src);
void get_field_names(oid* root, size_t* rootlen, char** table_name, column** clmn, int* fields);
UDC* get_column_list(column* clm, int fields);
int asn2vindral(int sType);
int mib2vindral(int mib_type);
char* get_type_desc(int vType);

#endif
