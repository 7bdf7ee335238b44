# Run by CPack after the install into its staging folder: Debian installs manual pages
# compressed (gzip -9n), whatever the install rules put there.
file(GLOB_RECURSE files "${CPACK_TEMPORARY_DIRECTORY}/*")
foreach(file ${files})
  if(file MATCHES "/share/man/" AND NOT file MATCHES "\\.gz$" AND NOT IS_SYMLINK "${file}")
    execute_process(COMMAND gzip -9nf "${file}" RESULT_VARIABLE rc)
    if(rc)
      message(FATAL_ERROR "cannot compress ${file}")
    endif()
  endif()
endforeach()
