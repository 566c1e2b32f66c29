/* Boost.JSON is compiled here, once, instead of being linked. */
#include <boost/json/src.hpp>
