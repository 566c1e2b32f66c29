/* Boost.JSON, which is all in headers, is compiled here and nowhere else. */
#include <boost/json/src.hpp>
