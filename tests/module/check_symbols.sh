#!/bin/sh
# check_symbols.sh NM LIBRARY: the library asks for nothing but the two contracts and the C library,
# and offers nothing but its public operations.
set -eu
nm=$1
library=$2

contracts='^(Omralib_|Sys_|Thread_|Queue_|Link_|Blockq_|Lock_|Spinlock_|Util_)[A-Za-z0-9_]*$'
contracts="$contracts|^(Enter_cs|Exit_cs|sys_trace_level)\$"
c_library='^(memcpy|memset|memcmp|memmove|rand|srand|time)$'
toolchain='^(__stack_chk_fail|__cxa_finalize|__gmon_start__|_ITM_.*|_GLOBAL_OFFSET_TABLE_)$'
offered='^(Omrapmi_[A-Za-z0-9_]*|omrapmi_in_svc)$'

foreign=$("$nm" -D --undefined-only "$library" | awk '{ sub(/@.*/, "", $2); print $2 }' |
    grep -Ev "$contracts|$c_library|$toolchain" || true)
public=$("$nm" -D --defined-only "$library" | awk '{ print $3 }')
surplus=$(echo "$public" | grep -Ev "$offered" || true)

status=0
if [ -n "$foreign" ]; then
    echo "asks for:" $foreign
    status=1
fi
if [ -n "$surplus" ]; then
    echo "offers:" $surplus
    status=1
fi
# The module-private operations are no business of other libraries.
for private in Omrapmi_read_get_obj Omrapmi_dispatcher Omrapmi_get_idsc; do
    if echo "$public" | grep -qx "$private"; then
        echo "offers the private operation $private"
        status=1
    fi
done
exit $status
