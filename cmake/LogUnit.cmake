# SPDX-License-Identifier: Apache-2.0
# velmar_log_unit(<unit> <sources...>): the sources form one logging unit and share one
# error-line rate limiter (one of them must say DM_LOG_DEFINE_UNIT()).
function(velmar_log_unit unit)
  set_source_files_properties(${ARGN} TARGET_DIRECTORY velmar_sastox
    PROPERTIES COMPILE_DEFINITIONS "DM_LOG_UNIT=${unit}")
endfunction()
