#!/bin/bash
# check_rules notices what it is there to notice: rows that lie, and questions that the table does not know of.
# Each is put into a copy of the sources.
set -u
root=$1
check=$(dirname "$0")/check_rules
work=$(mktemp -d) || exit 1
trap 'rm -rf "$work"' EXIT

sed 's/#.*//' "$(dirname "$0")/floors.txt" | tr ' ' '\n' | grep '^[a-z]' | while read -r room; do
    mkdir -p "$work/$room" && cp "$root/$room"/*.cpp "$root/$room"/*.h "$work/$room/" 2>/dev/null
done
"$check" "$work" || exit 1

# lie FILE SED TEXT: the copy with this change is refused, and the reason holds TEXT.
lie() {
    local said
    sed -i "$2" "$work/$1"
    cmp -s "$root/$1" "$work/$1" && { echo "changed nothing: $2"; exit 1; }
    if said=$("$check" "$work"); then
        echo "went unnoticed: $3"
        exit 1
    fi
    grep -qF -- "$3" <<<"$said" || { echo "expected: $3"; echo "$said"; exit 1; }
    cp "$root/$1" "$work/$1"
}

table=net/player_rules.h
lie $table 's/"IsIgnored"/"Dispatch"/' "RULE_UNKNOWN_COMMAND: Dispatch is named and does not ask it"
lie $table 's/"IsIgnored"/"Dispatch"/' "RULE_UNKNOWN_COMMAND: IsIgnored asks it and is not named"
lie $table 's/"IsIgnored"/"IsIgnored Refuse"/' "RULE_UNKNOWN_COMMAND: Refuse is named and does not ask it"
lie $table 's/"FindStream"/""/' "RULE_STREAM_NAME: nobody is named that asks it"
lie $table 's/{RULE_SEEK, RTMP_PLAYERS_COMMANDS/{RULE_SEEK, RTMP_PLAYERS_SEEKING/' \
    "RULE_SEEK: include/rtmpcast/player.h has no RTMP_PLAYERS_SEEKING"
lie $table 's/{RULE_STREAM_NAME, RTMP_PLAYERS_STREAM_NAME/{RULE_STREAM_NAME, RTMP_PLAYERS_CONNECT/' \
    "RTMP_PLAYERS_STREAM_NAME is the flag of no rule"
lie serve/serve.cpp 's/Allows(client, RULE_CONNECT_REJECTED)/client->PlayerFlags != 0/' \
    "RULE_CONNECT_REJECTED: AnswerRefusal is named and does not ask it"
lie serve/serve.cpp 's/Allows(client, RULE_CONNECT_REJECTED)/client->PlayerFlags != 0/' \
    "serve/serve.cpp looks at PlayerFlags by itself"
lie command/command.cpp 's/Allows(client, ruled.Rule)/client != nullptr/' \
    "RULE_PUBLISH: FindRuledCommand is named and does not ask it"
lie state/session_list.cpp 's/^int IsAnyClientConnected.*/int Asks(RtmpClient *client)\n{\n    return Allows(client, RULE_SEEK);\n}\n&/' \
    "RULE_SEEK: Asks asks it and is not named"
lie message/chunk_reader.cpp '/FlagOf(RULE_EXTENDED_TIME_IN) ==/d' \
    "RULE_EXTENDED_TIME_IN: ReadRtmpMessage is named and does not ask it"
