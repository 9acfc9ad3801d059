# Run by cpack before it packs: with SOURCE_DATE_EPOCH set, everything carries that time, which cpack itself
# sees to in Debian packages only.
if(DEFINED ENV{SOURCE_DATE_EPOCH})
  execute_process(
    COMMAND find ${CPACK_TEMPORARY_DIRECTORY} -exec touch -h -d @$ENV{SOURCE_DATE_EPOCH} {} +
    COMMAND_ERROR_IS_FATAL ANY)
endif()
