#!/bin/bash
# What the shared library leaves to others: the host's functions, which are exactly those of host.h; three calls
# of libcrypto, which OpenSSL 1.1 and 3 both have; and nothing else that its needed libraries do not define.
. "$(dirname "$0")/common.sh"

sort "$(dirname "$0")/host_names.txt" >"$work/host"
declared RTMP_HOST "$HEADERS"/rtmpcast/*.h >"$work/declared"
same "declared in host.h" "$work/host" "$work/declared"

# Weak references ("w") may stay open: the start-up code of the tool chain.
"$NM" -D --undefined-only "$LIBRARY" | awk '$1 == "U" { sub(/@.*/, "", $2); print $2 }' | sort -u >"$work/undefined"
: >"$work/others"
for name in $(needed "$LIBRARY"); do
    file=$(located "$name")
    defined "$file" >>"$work/others"
    case $name in libcrypto.*) defined "$file" >"$work/crypto" ;; esac
done
sort -u "$work/others" -o "$work/others"
comm -23 "$work/undefined" "$work/others" >"$work/left"
same "left to the host" "$work/host" "$work/left"

printf '%s\n' ERR_clear_error EVP_sha256 HMAC >"$work/wanted"
comm -12 "$work/undefined" "$work/crypto" >"$work/used"
same "taken from libcrypto" "$work/wanted" "$work/used"

"$NM" -D --undefined-only "$LIBRARY" | awk '$1 == "w" { sub(/@.*/, "", $2); print $2 }' | sort -u >"$work/weak"
if grep -vxE '__gmon_start__|__cxa_finalize|_ITM_(de)?registerTMCloneTable' "$work/weak"; then
    fail "weak references that are not the tool chain's"
fi
