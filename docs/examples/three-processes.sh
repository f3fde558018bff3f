#!/bin/sh
# three-processes.sh plain|secured: the commands of docs/operations.md, one after the other, in an
# empty directory. Needs kx, memorywatcher and nats-server in PATH.
set -eu
examples=$(dirname "$(readlink -f "$0")")

# Returns when the command succeeds; ends this script if it never does.
await() {
  tries=0
  until "$@" > /dev/null 2>&1; do
    tries=$((tries + 1))
    [ "$tries" -lt 300 ] || { echo "in vain: $*" >&2; exit 1; }
    sleep 0.1
  done
}
robots_have() { kx robots | grep -q "$1"; }
is_server_up() { kx robots 2>&1 | grep -q 'no robot'; }
# What was started last ends first.
processes=
started() { processes="$! $processes"; }
end() {
  for process in $processes; do
    if kill "$process"; then wait "$process" || true; fi
  done
}
trap end EXIT

plain() {
  export KX_BUS=nats://127.0.0.1:4222
  # [server]
  nats-server --addr 127.0.0.1 --port 4222 &
  # [server end]
  started
  await is_server_up

  # [host]
  kx host --bus nats://127.0.0.1:4222 --robot r1 &
  # [host end]
  started
  await robots_have KXHostSensors

  # [watcher]
  memorywatcher --bus nats://127.0.0.1:4222 --robot r1 &
  # [watcher end]
  started
  await robots_have KXMemoryWatcher

  # [viewer]
  kx watch 'Host/Load/*' --for 2s --bus nats://127.0.0.1:4222 --robot r1
  # [viewer end]

  # [look]
  export KX_BUS=nats://127.0.0.1:4222 KX_ROBOT=r1
  kx robots
  kx list 'Host/Load/*'
  kx describe KXMemoryWatcher
  # [look end]
}

secured() {
  # [certificates]
  sh "$examples/certificates.sh" DNS:localhost,IP:127.0.0.1
  # [certificates end]

  # [passwords]
  umask 077
  for user in host module viewer operator; do
    echo "p$(openssl rand -hex 16)" > "$user.password"
  done
  # [passwords end]

  # [secured-server]
  sed "s#/etc/nats/#$PWD/#" "$examples/robot-server.conf" > server.conf
  KX_HOST_PASSWORD=$(cat host.password) KX_MODULE_PASSWORD=$(cat module.password) \
  KX_VIEWER_PASSWORD=$(cat viewer.password) KX_OPERATOR_PASSWORD=$(cat operator.password) \
    nats-server -c server.conf &
  # [secured-server end]
  started

  # [secured-environment]
  export KX_BUS=tls://localhost:4222 KX_BUS_CA="$PWD/ca.pem" KX_ROBOT=r1
  export KX_BUS_USER=viewer KX_BUS_PASSWORD_FILE="$PWD/viewer.password"
  # [secured-environment end]
  await is_server_up

  # [secured-host]
  KX_BUS_USER=host KX_BUS_PASSWORD_FILE=host.password kx host &
  # [secured-host end]
  started
  await robots_have KXHostSensors

  # [secured-watcher]
  KX_BUS_USER=module KX_BUS_PASSWORD_FILE=module.password memorywatcher &
  # [secured-watcher end]
  started
  await robots_have KXMemoryWatcher

  # [secured-viewer]
  kx watch 'Host/Load/*' --for 2s
  # [secured-viewer end]

  # [refused]
  kx watch 'Host/Load/*' --for 2s --shared || echo "exit code $?"
  # [refused end]

  # [operator]
  KX_BUS_USER=operator KX_BUS_PASSWORD_FILE=operator.password kx watch 'Host/Load/*' --for 2s --shared
  # [operator end]
}

case ${1:-} in
  plain | secured) "$1" ;;
  *)
    echo "usage: sh three-processes.sh plain|secured" >&2
    exit 2
    ;;
esac
