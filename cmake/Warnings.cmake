# SPDX-License-Identifier: Apache-2.0
# One warning set for every target of the project; warnings are errors so that the
# tree stays clean on every compiler we build with.
function(velmar_warnings target)
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wshadow -Wformat=2 -Wundef -Werror
    $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Wold-style-cast>)
endfunction()
