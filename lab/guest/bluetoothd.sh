# shellcheck shell=sh
# Starts BlueZ's daemon, for its SDP server, with a serial port record for channels 1 and 16. Sourced by init.
hciconfig hci0 piscan
mkdir -p /run/dbus
dbus-daemon --system --fork
/usr/libexec/bluetooth/bluetoothd --compat --nodetach >/dev/console 2>&1 &
while ! [ -S /run/sdp ]; do usleep 20000; done
# It soon renames the adapter and switches its scans off; what init sets after that stays.
while hciconfig hci0 | grep -q PSCAN; do usleep 20000; done
for channel in 1 16; do sdptool add --channel=$channel SP >/dev/console; done
