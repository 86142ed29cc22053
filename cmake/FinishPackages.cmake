# Between their installation and their packing: what Debian's packages have and an installation has not.
file(GLOB_RECURSE pages "${CPACK_TEMPORARY_DIRECTORY}/*/usr/share/man/*/*.[1-9]")
foreach(page IN LISTS pages)
  execute_process(COMMAND gzip -9n "${page}" COMMAND_ERROR_IS_FATAL ANY)
endforeach()

# The storage directory; an installation leaves it to whoever sets up the device. Its policy.json comes with the
# package's postinst. Whoever may write in it owns the log.
set(storage "${CPACK_TEMPORARY_DIRECTORY}/plugin/opt/data/dpm/dplugins/zav-pyx-plugin")
file(MAKE_DIRECTORY "${storage}")
file(CHMOD "${storage}" PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE)
