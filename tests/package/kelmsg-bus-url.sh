# Sourced by the package tests.  kelmsg_bus_url PID OUT ERR prints the address
# that the `kelmsg bus` running as process PID writes to the file OUT once its
# broker listens, and fails with its errors (the file ERR) if it ends first.
kelmsg_bus_url() {
  until grep -q '^KELBUS_URL=' "$2"; do
    if ! kill -0 "$1" 2>/dev/null; then cat "$3" >&2; return 1; fi
    sleep 0.1
  done
  sed -n 's/^KELBUS_URL=//p' "$2"
}
