/* A zlib for the tests of its loading: the names alone. */
extern "C" void adler32() {}
extern "C" void compress2() {}
#ifndef WITHOUT_UNCOMPRESS
extern "C" void uncompress() {}
#endif
