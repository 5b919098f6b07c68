# Runs over what is about to be packed, and compresses what Debian's policy wants compressed.
file(GLOB_RECURSE documents
    ${CPACK_TEMPORARY_DIRECTORY}/*/changelog
    ${CPACK_TEMPORARY_DIRECTORY}/*/changelog.Debian
    ${CPACK_TEMPORARY_DIRECTORY}/*/peltexctl.1)
if(documents)
    execute_process(COMMAND gzip -9n ${documents} COMMAND_ERROR_IS_FATAL ANY)
endif()
