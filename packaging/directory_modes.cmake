# Run by CPack on the staged tree before it is packed: every directory
# 0755, as Debian wants them, whatever the umask it was installed under
# (install() makes directories with the umask applied; files get their modes
# set explicitly).
file(GLOB_RECURSE entries LIST_DIRECTORIES true "${CPACK_TEMPORARY_INSTALL_DIRECTORY}/*")
foreach(entry ${entries})
  if(IS_DIRECTORY "${entry}" AND NOT IS_SYMLINK "${entry}")
    file(CHMOD "${entry}" DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE
         GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
  endif()
endforeach()
