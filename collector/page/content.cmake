# Makes the source that has the files of the page in it, byte by byte:
#
#   cmake -DOUT=SOURCE -DNAMES=a.js,base/b.js -DPATHS=/path/of/a.js,/path/of/b.js -P content.cmake
#
# The assembler reads the files: their bytes would take the compiler seconds.
string(REPLACE "," ";" NAMES "${NAMES}")
string(REPLACE "," ";" PATHS "${PATHS}")
set(blocks "")
set(declared "")
set(rows "")
foreach(name path IN ZIP_LISTS NAMES PATHS)
  string(MAKE_C_IDENTIFIER "page_bytes_${name}" id)
  string(APPEND blocks "asm(\".section .rodata\\n.global ${id}\\n${id}:\\n.incbin \\\"${path}\\\"\\n\"\n"
    "    \".global ${id}_end\\n${id}_end:\\n.byte 0\\n.previous\\n\");\n")
  string(APPEND declared "extern const char ${id}[], ${id}_end[];\n")
  string(APPEND rows "    {\"${name}\", {${id}, static_cast<size_t>(${id}_end - ${id})}},\n")
endforeach()
file(WRITE "${OUT}" "/* Made by the build out of the files of the page. */
#include \"web/page_files.h\"

${blocks}
extern \"C\" {
${declared}}

std::span<const page_file> page_files() {
    static const page_file all[] = {
${rows}    };
    return all;
}
")
