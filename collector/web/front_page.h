/* The page at "/": signs a browser in with a one-time link or a token, and says where to go on. It
 * asks nothing of other hosts, and its script and style are those named in its policy, no others.
 */
#ifndef VINDRAL_COLLECTOR_WEB_FRONT_PAGE_H
#define VINDRAL_COLLECTOR_WEB_FRONT_PAGE_H

#include <string>

struct front_page {
    std::string html, policy; /* of Content-Security-Policy */
};

const front_page& the_front_page();

#endif
