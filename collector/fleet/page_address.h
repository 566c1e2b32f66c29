/* The address of a page: "https://shop.example.org:8443/status?key=1". Pure. */
#ifndef VINDRAL_COLLECTOR_FLEET_PAGE_ADDRESS_H
#define VINDRAL_COLLECTOR_FLEET_PAGE_ADDRESS_H

#include <string>
#include <string_view>

struct page_address {
    std::string host;
    std::string path; /* with the query; "/" at the least. What is no ASCII has become "%XX" */
    int port = 80;
    bool is_tls = false;
};

/* What is wrong, "" for nothing. Placeholders for secrets may stand behind the host. */
std::string read_page_address(std::string_view text, page_address& page);

/* For people: up to its query, with `instead` for that. */
std::string shown_page(std::string_view text, std::string_view instead = "");

#endif
