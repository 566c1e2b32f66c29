/* The table checks of snmpmon_checks.h. */
#include "snmpmon_checks.h"

#include "record_writer.h"

#include <algorithm>
#include <cstring>
#include <span>

/* --- columns ------------------------------------------------------------------------------------
 */

/* The node that an OID names; null when the MIB tree does not reach so far. */
static tree* exact_node(const oid* name, size_t length) {
    tree* node = libpo_get_tree(name, length, libpo_get_tree_head()); /* the nearest one */
    size_t depth = 0;
    for (const tree* at = node; at != nullptr; at = at->parent) {
        depth++;
    }
    return depth == length ? node : nullptr;
}

static bool has_children(const tree* node) {
    return node != nullptr && node->child_list != nullptr;
}

static heap_text table_name_text(const oid* root, size_t length) {
    u_char* buffer = nullptr;
    size_t size = 0, used = 0;
    if (!libpo_sprint_realloc_objid(&buffer, &size, &used, 1, root, length)) {
        free(buffer);
        return heap_text(strdup("[TRUNCATED]"));
    }
    return heap_text(reinterpret_cast<char*>(buffer));
}

void free_columns(column** clmn, int fields) {
    for (int i = 0; i < fields; i++) {
        free((*clmn)[i].label);
    }
    free(*clmn);
    *clmn = nullptr;
}

void get_field_names(oid* root, size_t* rootlen, char** table_name, column** clmn, int* fields) {
    *clmn = nullptr;
    *fields = 0;
    *table_name = table_name_text(root, *rootlen).release();
    const tree* entry = exact_node(root, *rootlen);
    if (has_children(entry) && has_children(entry->child_list) &&
        entry->child_list->next_peer == nullptr && *rootlen < MAX_OID_LEN) {
        entry = entry->child_list;
        root[(*rootlen)++] = entry->subid;
    }
    if (!has_children(entry) || *rootlen >= MAX_OID_LEN) {
        return;
    }
    size_t count = 0;
    for (const tree* child = entry->child_list; child != nullptr; child = child->next_peer) {
        if (has_children(child)) {
            return; /* a group of objects */
        }
        count++;
    }
    *clmn = static_cast<column*>(calloc(count, sizeof(column)));
    if (*clmn == nullptr) {
        return;
    }
    for (const tree* child = entry->child_list; child != nullptr; child = child->next_peer) {
        (*clmn)[(*fields)++] = {child->subid, strdup(child->label), child->type, 0};
    }
    /* The tree keeps children in no particular order. */
    std::ranges::sort(std::span(*clmn, count), {}, &column::subid);
}

UDC* get_column_list(column* clm, int fields) {
    UDCW* list = nullptr;
    uint32_t count = fields > 0 ? static_cast<uint32_t>(fields) : 0;
    if (count == 0 || !create_new_udcw(&list, 0, count, 0, 0, 0, count)) {
        return nullptr;
    }
    for (const column& c : std::span(clm, count)) {
        udcw_add(list, UDC_UI32,
                 c.type_asn != 0 ? asn2vindral(c.type_asn) : mib2vindral(c.type_val));
        udcw_add(list, UDC_STRING, c.label);
    }
    UDC* record = list->udc;
    udcw_free(&list);
    return record;
}

/* --- cells --------------------------------------------------------------------------------------
 */

/* A value and where it belongs. Its row is named by the part of the OID behind the column; row and
 * text lie in buffers of the table, so that a cell costs no memory block of its own. */
struct table_cell {
    uint32_t row_at; /* in oids */
    uint32_t row_length;
    uint32_t text_at; /* in bytes */
    int column;
};

/* Where a column has got to. */
struct column_walk {
    oid last[MAX_OID_LEN];
    size_t last_length;
    bool ended;
};

struct table_walk {
    oid entry[MAX_OID_LEN] = {};
    size_t entry_length = 0;
    column* columns = nullptr;
    int fields = 0;
    heap<column_walk> walks; /* one per column */
    heap<int> asked;         /* the columns in the current request, */
    size_t asked_count = 0;  /* in its order */
    growing<table_cell> cells;
    growing<oid> rows;
    bytes texts; /* with their NULs */

    table_walk() = default;
    ~table_walk() { free_columns(&columns, fields); }
    table_walk(const table_walk&) = delete;
    table_walk& operator=(const table_walk&) = delete;
};

static std::span<table_cell> cells_of(const table_walk& walk) {
    return {walk.cells.data(), walk.cells.size()};
}

static std::span<const oid> row_of(const table_walk& walk, const table_cell& cell) {
    return {walk.rows.data() + cell.row_at, cell.row_length};
}

/* Finds a place for a row's index. In most tables the cells of a response have the same one, which
 * is then kept once. Returns false when memory is short. */
static bool keep_row(table_walk& walk, std::span<const oid> row, uint32_t& row_at) {
    std::span<table_cell> cells = cells_of(walk);
    if (!cells.empty() && std::ranges::equal(row_of(walk, cells.back()), row)) {
        row_at = cells.back().row_at;
        return true;
    }
    row_at = static_cast<uint32_t>(walk.rows.size());
    return walk.rows.append(row.data(), row.size());
}

static bool is_too_large(const table_walk& walk) {
    return walk.texts.size() + walk.rows.size() * sizeof(oid) > MAX_SNMP_TEXT ||
           cells_of(walk).size() > MAX_SNMP_CELLS;
}

/* Returns false when memory is short. */
static bool keep_cell(table_walk& walk, int column, std::span<const oid> row,
                      const netsnmp_variable_list* variable) {
    heap_text text = escaped(print_value(variable));
    table_cell cell = {0, static_cast<uint32_t>(row.size()),
                       static_cast<uint32_t>(walk.texts.size()), column};
    return text && keep_row(walk, row, cell.row_at) &&
           walk.texts.append(text.get(), strlen(text.get()) + 1) && walk.cells.append(cell);
}

/* By row, then by column: as the record has them. */
static void sort_cells(const table_walk& walk) {
    std::span<table_cell> cells = cells_of(walk);
    auto precedes = [&walk](const table_cell& a, const table_cell& b) {
        std::span<const oid> row_a = row_of(walk, a), row_b = row_of(walk, b);
        if (row_a.data() == row_b.data() || std::ranges::equal(row_a, row_b)) {
            return a.column < b.column;
        }
        return std::ranges::lexicographical_compare(row_a, row_b);
    };
    if (!std::ranges::is_sorted(cells, precedes)) {
        std::ranges::sort(cells, precedes);
    }
}

static size_t count_rows(const table_walk& walk) {
    std::span<table_cell> cells = cells_of(walk);
    size_t rows = 0;
    for (size_t i = 0; i < cells.size(); i++) {
        rows += i == 0 || !std::ranges::equal(row_of(walk, cells[i]), row_of(walk, cells[i - 1]));
    }
    return rows;
}

/* The record of all cells; null when there is none. The cells are sorted. */
static heap<UDC> cell_list(const table_walk& walk, size_t rows) {
    std::span<table_cell> cells = cells_of(walk);
    auto count = static_cast<uint32_t>(rows * static_cast<size_t>(walk.fields));
    UDCW* list = nullptr;
    if (count == 0 || !create_new_udcw(&list, 0, 2 * count, 0, 0, 0, count)) {
        return nullptr;
    }
    size_t at = 0;
    for (size_t r = 0; r < rows; r++) {
        std::span<const oid> row = row_of(walk, cells[at]);
        for (int c = 0; c < walk.fields; c++) {
            const char* text = "";
            if (at < cells.size() && cells[at].column == c &&
                std::ranges::equal(row_of(walk, cells[at]), row)) {
                text = walk.texts.data() + cells[at++].text_at;
            }
            udcw_add(list, UDC_UI32, r);
            udcw_add(list, UDC_UI32, c);
            udcw_add(list, UDC_STRING, *text != '\0' ? text : "-");
        }
    }
    heap<UDC> record(list->udc);
    udcw_free(&list);
    return record;
}

/* --- the table ----------------------------------------------------------------------------------
 */

/* What a check comes to. */
struct table_outcome {
    uint32_t status;
    heap_text error; /* of a failure, escaped */
    bool with_columns;
    heap<UDC> cell_list; /* null when there are no rows */
};

static table_outcome table_failed(heap_text error, bool with_columns) {
    return {protocol::status_limit, escaped(std::move(error)), with_columns, nullptr};
}

/* Puts every column at its beginning. Returns false when memory is short. */
static bool start_columns(table_walk& walk) {
    auto fields = static_cast<size_t>(walk.fields);
    walk.walks.reset(static_cast<column_walk*>(calloc(fields, sizeof(column_walk))));
    walk.asked.reset(static_cast<int*>(calloc(fields, sizeof(int))));
    if (!walk.walks || !walk.asked) {
        return false;
    }
    for (size_t c = 0; c < fields; c++) {
        column_walk& start = walk.walks.get()[c];
        memcpy(start.last, walk.entry, walk.entry_length * sizeof(oid));
        start.last[walk.entry_length] = walk.columns[c].subid;
        start.last_length = walk.entry_length + 1;
    }
    return true;
}

/* A request for the next values of the columns that have not ended. */
static pdu_owner request_columns(table_walk& walk, const int* bulk) {
    pdu_owner request = new_walk_request(bulk);
    walk.asked_count = 0;
    for (int c = 0; request && c < walk.fields; c++) {
        const column_walk& at = walk.walks.get()[c];
        if (!at.ended) {
            libpo_snmp_add_null_var(request.get(), at.last, at.last_length);
            walk.asked.get()[walk.asked_count++] = c;
        }
    }
    return request;
}

/* Whether the value is the next one of its column. */
static bool continues_column(const table_walk& walk, int c, const netsnmp_variable_list* variable) {
    const column_walk& at = walk.walks.get()[c];
    size_t prefix = walk.entry_length + 1;
    return variable->name_length > prefix && variable->name_length <= MAX_OID_LEN &&
           lies_under(variable, walk.entry, walk.entry_length) &&
           variable->name[walk.entry_length] == walk.columns[c].subid && !is_exception(variable) &&
           libpo_snmp_oid_compare(variable->name, variable->name_length, at.last, at.last_length) >
               0;
}

/* Takes the values of a response, which come in rounds over the columns asked for. Returns how
 * many columns have moved on or ended, one per variable, or -1 when memory is short. */
static int take_values(table_walk& walk, const netsnmp_pdu* response) {
    size_t prefix = walk.entry_length + 1;
    int progress = 0;
    size_t i = 0;
    for (const auto* variable = response->variables; variable != nullptr;
         variable = variable->next_variable) {
        int c = walk.asked.get()[i++ % walk.asked_count];
        column_walk& at = walk.walks.get()[c];
        if (at.ended) {
            continue;
        }
        progress++;
        at.ended = !continues_column(walk, c, variable);
        if (at.ended) {
            continue;
        }
        if (!keep_cell(walk, c, {variable->name + prefix, variable->name_length - prefix},
                       variable)) {
            return -1;
        }
        if (walk.columns[c].type_asn == 0) {
            walk.columns[c].type_asn = variable->type;
        }
        memcpy(at.last, variable->name, variable->name_length * sizeof(oid));
        at.last_length = variable->name_length;
    }
    return progress;
}

static heap_text table_packet_error(const netsnmp_pdu* response) {
    heap_text object = failed_object(response);
    return format_text("%s %s", libpo_snmp_errstring(static_cast<int>(response->errstat)),
                       object ? object.get() : "");
}

static bool all_ended(const table_walk& walk) {
    return std::ranges::all_of(std::span(walk.walks.get(), static_cast<size_t>(walk.fields)),
                               &column_walk::ended);
}

/* Asks until every column has ended, or a response brings nothing at all. */
static table_outcome gather(table_walk& walk, netsnmp_session* session, const int* bulk) {
    int progress = 1;
    while (progress > 0 && !all_ended(walk)) {
        exchange answer = ask(session, request_columns(walk, bulk), "Timeout: No Response from");
        if (!answer.response) {
            return table_failed(std::move(answer.error), true);
        }
        if (answer.response->errstat != SNMP_ERR_NOERROR) {
            return table_failed(table_packet_error(answer.response.get()), false);
        }
        progress = take_values(walk, answer.response.get());
        if (is_too_large(walk)) {
            return table_failed(format_text("Result is too large"), true);
        }
    }
    if (progress < 0) {
        return table_failed(format_text("Unknown error"), true);
    }
    sort_cells(walk);
    size_t rows = count_rows(walk);
    if (rows * static_cast<size_t>(walk.fields) > MAX_SNMP_CELLS) {
        return table_failed(format_text("Result is too large"), true);
    }
    return {protocol::status_ok, nullptr, true, cell_list(walk, rows)};
}

static table_outcome run_table(snmp_def& test, table_walk& walk, const int* bulk) {
    check_session session(test);
    if (session.opened == nullptr) {
        return table_failed(std::move(session.error), false);
    }
    heap_text error = parse_oid(test.oid_string, walk.entry, &walk.entry_length);
    if (error) {
        return table_failed(std::move(error), false);
    }
    char* name = nullptr;
    get_field_names(walk.entry, &walk.entry_length, &name, &walk.columns, &walk.fields);
    heap_text table_name(name);
    if (walk.fields == 0) {
        return table_failed(table_name ? format_text("%s is not a table", table_name.get())
                                       : format_text("Table is not specified"),
                            false);
    }
    if (!start_columns(walk)) {
        return table_failed(format_text("Unknown error"), false);
    }
    return gather(walk, session.opened, bulk);
}

static UDCW* table_record(const snmp_def& test, time_t check_time, const table_walk& walk,
                          const table_outcome& outcome) {
    UDCW* record = make_record<protocol::snmp_table>(
        named<"test">(test.tid), named<"location">(test.loc_id), named<"status">(outcome.status),
        named<"time">(check_time),
        named<"message">(outcome.status == protocol::status_ok ? "New results are available."
                                                               : outcome.error.get()));
    if (record == nullptr) {
        return nullptr;
    }
    if (outcome.with_columns) {
        heap<UDC> columns(get_column_list(walk.columns, walk.fields));
        udcw_add(record, UDC_RECORD, columns.get());
    }
    udcw_add(record, UDC_RECORD, outcome.cell_list.get());
    return record;
}

static int check_table(snmp_def& test, const int* bulk, char** data, int* data_size) {
    time_t check_time = now_in_seconds();
    table_walk walk;
    table_outcome outcome = run_table(test, walk, bulk);
    hand_over(table_record(test, check_time, walk, outcome), data, data_size);
    return 1;
}

int do_single_full_table_check(snmp_def* def_snmp, char** pData, int* data_size) {
    return check_table(*def_snmp, nullptr, pData, data_size);
}

int do_single_full_table_bulk_check(snmp_def* def_snmp, char** pData, int* data_size) {
    return check_table(*def_snmp, &def_snmp->bulk, pData, data_size);
}
