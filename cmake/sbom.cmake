# The bill of materials, in SPDX 2.3: the libraries of this build and their versions. The dependencies of these libraries
# are not in it.

# lumora_uses(NAME VERSION LICENCE HOMEPAGE FILE HOW): FILE of ours is linked with it, or has parts of it compiled in
# (HOW: DYNAMIC_LINK or STATIC_LINK). Another FILE that uses it in the same way has a call of its own.
function(lumora_uses name version licence homepage file how)
    if(NOT version)
        set(version unknown)
    endif()
    string(CONCAT about "\"SPDXID\": \"SPDXRef-${name}\", \"name\": \"${name}\", \"versionInfo\": \"${version}\","
        " \"licenseDeclared\": \"${licence}\", \"licenseConcluded\": \"NOASSERTION\","
        " \"copyrightText\": \"NOASSERTION\", \"downloadLocation\": \"NOASSERTION\", \"filesAnalyzed\": false,"
        " \"homepage\": \"${homepage}\", \"externalRefs\": [{\"referenceCategory\": \"PACKAGE-MANAGER\","
        " \"referenceType\": \"purl\", \"referenceLocator\": \"pkg:generic/${name}@${version}\"}]")
    get_property(names GLOBAL PROPERTY LUMORA_SBOM_NAMES)
    if(NOT name IN_LIST names)
        set_property(GLOBAL APPEND PROPERTY LUMORA_SBOM_NAMES "${name}")
        set_property(GLOBAL PROPERTY LUMORA_SBOM_ABOUT_${name} "${about}")
        set_property(GLOBAL PROPERTY LUMORA_SBOM_HOW_${name} "${how}")
    endif()
    set_property(GLOBAL APPEND PROPERTY LUMORA_SBOM_FILES_${name} "${file}")
endfunction()

# Called after all libraries have been found.
function(lumora_write_sbom file)
    set(packages "")
    set(relations "")
    get_property(names GLOBAL PROPERTY LUMORA_SBOM_NAMES)
    foreach(name IN LISTS names)
        get_property(about GLOBAL PROPERTY LUMORA_SBOM_ABOUT_${name})
        get_property(how GLOBAL PROPERTY LUMORA_SBOM_HOW_${name})
        get_property(files GLOBAL PROPERTY LUMORA_SBOM_FILES_${name})
        list(REMOVE_DUPLICATES files)
        list(JOIN files ", " files)
        string(APPEND packages ",\n    {${about}, \"comment\": \"Used by ${files}\"}")
        string(APPEND relations ",\n    {\"spdxElementId\": \"SPDXRef-lumora\", \"relationshipType\": \"${how}\","
            " \"relatedSpdxElement\": \"SPDXRef-${name}\"}")
    endforeach()
    # The same libraries give the same name, and others another one. SOURCE_DATE_EPOCH sets the time.
    string(UUID identity NAMESPACE 6ba7b811-9dad-11d1-80b4-00c04fd430c8 TYPE SHA1
        NAME "${PROJECT_VERSION}${packages}${relations}")
    string(TIMESTAMP now "%Y-%m-%dT%H:%M:%SZ" UTC)
    configure_file(${PROJECT_SOURCE_DIR}/cmake/lumora.spdx.json.in ${file} @ONLY)
    add_custom_target(sbom COMMAND ${PROJECT_SOURCE_DIR}/scripts/lib/check_sbom ${file}
        COMMENT "Checking ${file}" VERBATIM)
endfunction()
