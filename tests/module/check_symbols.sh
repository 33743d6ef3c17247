#!/bin/sh
# check_symbols.sh NM LIBRARY: the library asks for nothing but the two contracts and the C library,
# and offers nothing but its public operations.
set -eu
contracts='(Omralib|Sys|Thread|Queue|Link|Blockq|Lock|Spinlock|Util)_.*|(Enter|Exit)_cs|sys_trace_level'
c_library='memcpy|memset|memcmp|memmove|rand|srand|time'
toolchain='__stack_chk_fail|__cxa_finalize|__gmon_start__|_ITM_.*|_GLOBAL_OFFSET_TABLE_'

# surplus FILTER ALLOWED: its dynamic symbols, but those that are allowed; fails when there are any.
surplus() {
    ! "$nm" -D "$1" "$library" | sed 's/.* //; s/@.*//' | grep -Evx "$2"
}
nm=$1 library=$2 status=0
surplus --undefined-only "$contracts|$c_library|$toolchain" || status=1
surplus --defined-only 'Omrapmi_.*|omrapmi_in_svc' || status=1
exit $status
