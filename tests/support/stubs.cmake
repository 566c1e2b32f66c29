# Shared objects that stand in for the libraries the agent opens at run time. Each case is a directory
# below VINDRAL_STUBS with files under the names that the loader tries.
set(stub_root ${CMAKE_CURRENT_BINARY_DIR}/stubs)
set_property(GLOBAL PROPERTY vindral_stub_root ${stub_root})

# vindral_stub(<directory> <file name> <source> [definition...])
function(vindral_stub directory file source)
  string(MAKE_C_IDENTIFIER "stub_${directory}_${file}" target)
  add_library(${target} MODULE stubs/${source})
  target_compile_definitions(${target} PRIVATE ${ARGN})
  set_target_properties(${target} PROPERTIES
    PREFIX "" SUFFIX "" OUTPUT_NAME ${file} NO_SONAME TRUE
    LIBRARY_OUTPUT_DIRECTORY ${stub_root}/${directory})
  set_property(GLOBAL APPEND PROPERTY vindral_stub_targets ${target})
endfunction()

vindral_stub(ssl_old libssl.so.1.0.0 ssl_stub.cpp OLD_RELEASE)
vindral_stub(ssl_odd libcrypto.0.9.8e ssl_stub.cpp OLD_RELEASE)
vindral_stub(ssl_current libssl.so.3 ssl_stub.cpp CURRENT_RELEASE)
vindral_stub(ssl_1_1 libssl.so.1.1 ssl_stub.cpp CURRENT_RELEASE)
vindral_stub(ssl_no_set_fd libssl.so ssl_stub.cpp CURRENT_RELEASE WITHOUT_SET_FD)
vindral_stub(ssl_no_method libssl.so ssl_stub.cpp CURRENT_RELEASE WITHOUT_CLIENT_METHOD)
vindral_stub(ssl_no_init_crypto libssl.so ssl_stub.cpp CURRENT_RELEASE WITHOUT_INIT_CRYPTO)
vindral_stub(ssl_no_set1_host libssl.so.3 ssl_stub.cpp CURRENT_RELEASE VERIFIES WITHOUT_SET1_HOST)
vindral_stub(ssl_1_0_2 libssl.so.1.0.0 ssl_stub.cpp OLD_RELEASE VERIFIES)
vindral_stub(ssl_no_info_callback libssl.so.3 ssl_stub.cpp CURRENT_RELEASE VERIFIES SHOWS
  WITHOUT_INFO_CALLBACK)
vindral_stub(ssl_no_dates libssl.so.1.0.0 ssl_stub.cpp OLD_RELEASE VERIFIES SHOWS WITHOUT_DATES)
vindral_stub(ssl_shows libssl.so.3 ssl_stub.cpp CURRENT_RELEASE SHOWS)
vindral_stub(ssl_needs_another libssl.so.3 ssl_stub.cpp CURRENT_RELEASE)
vindral_stub(zlib_second libz.so.1 zlib_stub.cpp)
vindral_stub(zlib_incomplete libz.so zlib_stub.cpp WITHOUT_UNCOMPRESS)
vindral_stub(snmp_5_8 libsnmp.so.35 snmp_stub.cpp)
vindral_stub(snmp_no_md5_des libsnmp.so snmp_stub.cpp)
vindral_stub(snmp_incomplete libsnmp.so snmp_stub.cpp WITHOUT_TREE_HEAD)
vindral_stub(mysql_8 libmysqlclient.so.21 mysql_stub.cpp)
vindral_stub(mysql_plain libmysqlclient.so mysql_stub.cpp WITHOUT_THREADS)
vindral_stub(mysql_incomplete libmysqlclient.so mysql_stub.cpp WITHOUT_CLOSE)
vindral_stub(mysql_incomplete libmysqlclient.so.21 mysql_stub.cpp)

# What the loader does not find.
add_library(vindral_stub_needed SHARED stubs/zlib_stub.cpp)
target_link_libraries(stub_ssl_needs_another_libssl_so_3 PRIVATE vindral_stub_needed)
target_link_options(stub_ssl_needs_another_libssl_so_3 PRIVATE -Wl,--no-as-needed)
set_target_properties(stub_ssl_needs_another_libssl_so_3 PROPERTIES SKIP_BUILD_RPATH TRUE)
