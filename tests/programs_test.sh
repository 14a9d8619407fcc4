#!/usr/bin/env bash
# Programs on the simulated air, as people start them. TAV_BUILD names the build folder.
set -u
root=$(cd "$(dirname "$0")/.." && pwd)
client=$TAV_BUILD/examples/brick_client
server=$TAV_BUILD/examples/brick_server
world=$(mktemp -d)
trap 'kill $(jobs -p) 2>/dev/null; rm -rf "$world"' EXIT
mkdir -p "$world/run" "$world/prjs" && cd "$world/run" || exit 1
export TAV_AIR=programs-$$ TAV_AIR_SPEED=50
failed=0

# expect STATUS TEXT COMMAND ...: runs the command and looks for its status and for the text in what it says.
expect() {
  local status=$1 text=$2 said got=0
  shift 2
  said=$(timeout 60 "$@" 2>&1) || got=$?
  [ "$got" = "$status" ] && [[ $said == *"$text"* ]] && return
  printf 'FAILED: %s\n  status %s, wanted %s; wanted "%s", said:\n%s\n' "$*" "$got" "$status" "$text" "$said"
  failed=1
}

air=$root/scripts/air
expect 0 'Every message arrived unchanged.' "$root/scripts/demo" --fast
expect 1 'Robot2 was not found' "$air" Robot1 -- "$client" Robot2
expect 1 'no Bluetooth adapter that works' "$air" --no-adapter -- "$client" Robot2
expect 1 'channels 1 and 16' "$air" --faults 'bind:1=EACCES' Robot2 -- "$server" Robot1
expect 2 "air: TAV_AIR_FAULTS: 'NOTHING'" "$air" --faults 'bind:1=NOTHING' A -- true
expect 2 "air: TAV_AIR_SPEED: '1x'" "$air" --speed 1x A -- true
expect 2 "air: TAV_AIR: 'a/b'" "$air" --air a/b A -- true
expect 2 "air: TAV_AIR_STATE: 'lost'" "$air" --state 'hidden lost' A -- true
expect 2 "air: TAV_AIR_SERVICES: 'Mailboxes'" "$air" --service Mailboxes A -- true
expect 2 "air: TAV_AIR_ADDRESS: '1:2'" "$air" --address 1:2 A -- true
expect 2 'air: -- is missing before the program, at true' "$air" Robot2 true
expect 2 'air: unknown option --bogus' "$air" --bogus Robot2 -- true
expect 1 'does TAV_BUILD name a build folder?' env TAV_BUILD=/nowhere "$air" Robot2 -- true
expect 0 'untouched' "$air" A -- bash -c 'for i in {3..99}; do eval "exec $i>&-"; done; sleep 0.1; echo untouched'

# The examples of the manual pages.
"$air" --service Echo=5 Robot2 -- "$TAV_BUILD/examples/manual" Robot2 >/dev/null &
sleep 1
expect 0 'Robot2 says Fine' "$air" Robot1 -- "$TAV_BUILD/examples/manual" Robot1 Robot2
wait $! || failed=1

# A brick is there as long as its program, however that ends.
"$air" Robot2 -- sleep 60 &
sleep 0.5
expect 1 'sees Robot2' timeout -s KILL 3 "$air" --faults 'connect:*=EIO' Robot1 -- "$client" Robot2
kill -KILL $!
wait $! 2>/dev/null
expect 1 'Robot2 was not found' "$air" Robot1 -- "$client" Robot2
exit $failed
