#!/usr/bin/env bash
# Inside the throw-away system (deploy_test.sh): runs docs/deploy.md's
# commands, then checks what the packages did. Writes output.log and the exit
# status beside itself; deploy_test.sh reads them after the system stopped.
set -uo pipefail
cd /root/deploy
exec > output.log 2>&1
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }
check() {  # check DESCRIPTION COMMAND...: the command must succeed
  local what=$1; shift
  if "$@"; then echo "ok: $what"; else fail "$what"; fi
}
main_pid() { systemctl show --property=MainPID --value uoz-agent; }

echo "== docs/deploy.md"
if ! timeout 120 bash -euo pipefail deploy.sh > deploy.log 2>&1; then
  cat deploy.log
  fail "a command of deploy.md failed"
  echo "$failures" > status
  exit 0
fi
cat deploy.log

echo "== what the packages installed"
for file in agent-settings.json ecus.json uoz-agent.env vehicle.json uoz-ecusim.env; do
  check "/etc/uoz/$file" test -s "/etc/uoz/$file"
done
check "the example agent settings are the settings" \
  cmp /usr/share/doc/udsoverzelko/examples/agent-settings.json /etc/uoz/agent-settings.json
check "the units" test -f /lib/systemd/system/uoz-agent.service -a -f /lib/systemd/system/uoz-ecusim.service
check "the broker's drop-in" test -f /usr/share/uoz-agent/mosquitto-uoz.conf
check "the drop-in has the settings of uoz-pki broker-config, but for user and persistence" \
  bash -c 'diff <(grep -v "^#" /usr/share/uoz-agent/mosquitto-uoz.conf | grep . | sort) \
                <(grep -Ev "^#|^user |^persistence " /etc/uoz/pki/mosquitto.conf | sort)'
check "the broker has no listener but the drop-in's" bash -c '! (exec 3<>/dev/tcp/127.0.0.1/1883) 2>/dev/null'
check "the service user uoz, without a shell" \
  bash -c 'getent passwd uoz | grep -q ":/nonexistent:/usr/sbin/nologin$"'
for deb in ./*.deb; do
  package=$(dpkg-deb --field "$deb" Package)
  check "$package has its copyright file" \
    bash -c "dpkg-deb --contents '$deb' | grep -q ' ./usr/share/doc/$package/copyright$'"
done
check "the copyright file is machine-readable (format 1.0)" /usr/bin/python3 -c '
import sys
from debian.copyright import Copyright
Copyright(open(sys.argv[1]), strict=True)' /usr/share/doc/uoz-agent/copyright
conffiles=$(dpkg-query --showformat='${Conffiles}\n' --show uoz-agent uoz-ecusim | awk 'NF {print $1}' | sort)
expected=$(printf '%s\n' /etc/uoz/agent-settings.json /etc/uoz/ecus.json /etc/uoz/uoz-agent.env \
  /etc/uoz/uoz-ecusim.env /etc/uoz/vehicle.json)
check "conffiles: $(echo $conffiles)" test "$conffiles" = "$expected"

echo "== systemd-analyze verify"
verify=$(systemd-analyze verify /lib/systemd/system/uoz-agent.service \
  /lib/systemd/system/uoz-ecusim.service 2>&1)
verified=$?
echo "verify said: ${verify:-(nothing)}, exit $verified"
check "systemd-analyze verify accepts the units" test -z "$verify" -a "$verified" = 0
systemd-analyze security --no-pager uoz-agent.service | tail -1
systemd-analyze security --no-pager uoz-ecusim.service | tail -1

echo "== the running services"
check "uoz-agent is active" systemctl is-active --quiet uoz-agent
check "uoz-ecusim is active" systemctl is-active --quiet uoz-ecusim
check "the agent runs as uoz" test "$(ps -o user= -p "$(main_pid)")" = uoz
check "the journal has the agent's ready line" \
  bash -c 'journalctl -u uoz-agent --no-pager | grep -q "uoz-agent ready on localhost:8883"'
check "the first read showed the engine's DTC" grep -q "P0301-00" deploy.log

echo "== a reinstall keeps an edited conffile and restarts the agent"
sed -i 's/"busy-retries": 3/"busy-retries": 2/' /etc/uoz/agent-settings.json
before=$(main_pid)
dpkg -i ./uoz-agent_*.deb > reinstall.log 2>&1 || { cat reinstall.log; fail "dpkg -i uoz-agent"; }
check "the edited settings stay" grep -q '"busy-retries": 2' /etc/uoz/agent-settings.json
check "the agent was restarted and is active" \
  bash -c "systemctl is-active --quiet uoz-agent && [ \"\$(systemctl show --property=MainPID --value uoz-agent)\" != $before ]"

echo "== purge"
apt-get purge -y uoz-agent uoz-ecusim > purge.log 2>&1 || { cat purge.log; fail "apt-get purge"; }
check "the agent is stopped" bash -c '! systemctl is-active --quiet uoz-agent'
check "the units are gone" test ! -e /lib/systemd/system/uoz-agent.service -a ! -e /lib/systemd/system/uoz-ecusim.service
check "the enablement is gone" test ! -e /etc/systemd/system/multi-user.target.wants/uoz-agent.service
check "the settings are gone" test ! -e /etc/uoz/agent-settings.json -a ! -e /etc/uoz/uoz-agent.env
check "the certificates stay" test -f /etc/uoz/pki/agent/cert.pem -a -f /etc/uoz/pki/ca/ca.pem
check "the user stays" bash -c "getent passwd uoz > /dev/null"

echo "$failures" > status
