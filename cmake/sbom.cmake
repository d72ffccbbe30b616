# The bill of materials, in SPDX 2.3: the libraries of this build and their versions. The dependencies of these libraries
# are not in it.

# lumora_uses(NAME VERSION LICENCE HOMEPAGE FILE HOW): FILE of ours is linked with it, or has parts of it compiled in
# (HOW: DYNAMIC_LINK or STATIC_LINK).
function(lumora_uses name version licence homepage file how)
    if(NOT version)
        set(version unknown)
    endif()
    string(CONCAT package ",\n    {\"SPDXID\": \"SPDXRef-${name}\", \"name\": \"${name}\", \"versionInfo\": \"${version}\","
        " \"licenseDeclared\": \"${licence}\", \"licenseConcluded\": \"NOASSERTION\","
        " \"copyrightText\": \"NOASSERTION\", \"downloadLocation\": \"NOASSERTION\", \"filesAnalyzed\": false,"
        " \"homepage\": \"${homepage}\", \"comment\": \"Used by ${file}\","
        " \"externalRefs\": [{\"referenceCategory\": \"PACKAGE-MANAGER\", \"referenceType\": \"purl\","
        " \"referenceLocator\": \"pkg:generic/${name}@${version}\"}]}")
    string(CONCAT relation ",\n    {\"spdxElementId\": \"SPDXRef-lumora\", \"relationshipType\": \"${how}\","
        " \"relatedSpdxElement\": \"SPDXRef-${name}\"}")
    set_property(GLOBAL APPEND_STRING PROPERTY LUMORA_SBOM_PACKAGES "${package}")
    set_property(GLOBAL APPEND_STRING PROPERTY LUMORA_SBOM_RELATIONS "${relation}")
endfunction()

# Called after all libraries have been found.
function(lumora_write_sbom file)
    get_property(packages GLOBAL PROPERTY LUMORA_SBOM_PACKAGES)
    get_property(relations GLOBAL PROPERTY LUMORA_SBOM_RELATIONS)
    # The same libraries give the same name, and others another one. SOURCE_DATE_EPOCH sets the time.
    string(UUID identity NAMESPACE 6ba7b811-9dad-11d1-80b4-00c04fd430c8 TYPE SHA1
        NAME "${PROJECT_VERSION}${packages}${relations}")
    string(TIMESTAMP now "%Y-%m-%dT%H:%M:%SZ" UTC)
    configure_file(${PROJECT_SOURCE_DIR}/cmake/lumora.spdx.json.in ${file} @ONLY)
    add_custom_target(sbom COMMAND ${PROJECT_SOURCE_DIR}/scripts/lib/check_sbom ${file}
        COMMENT "Checking ${file}" VERBATIM)
endfunction()
