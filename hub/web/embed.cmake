# Writes OUTPUT, a source with the FILES (names without folders) of FOLDER as arrays.
set(arrays "")
set(rows "")
set(number 0)
string(REPLACE "," ";" names "${FILES}")
foreach(name IN LISTS names)
    file(READ ${FOLDER}/${name} bytes HEX)
    string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${bytes}")
    string(APPEND arrays "constexpr unsigned char FILE_${number}[] = {${bytes}};\n")
    string(APPEND rows "    {\"${name}\", {reinterpret_cast<const char*>(FILE_${number}), sizeof(FILE_${number})}},\n")
    math(EXPR number "${number} + 1")
endforeach()
file(WRITE ${OUTPUT} "// Made by embed.cmake.
#include \"hub/web/resources.h\"

namespace lumora_hub::web {
namespace {

${arrays}
const Resource RESOURCES[] = {
${rows}};

}  // namespace

const Resource* FindResource(std::string_view name) {
    for (const Resource& resource : RESOURCES) {
        if (resource.name == name) {
            return &resource;
        }
    }
    return nullptr;
}

}  // namespace lumora_hub::web
")
