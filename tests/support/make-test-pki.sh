#!/usr/bin/env bash
# The PKI of one test run: the nodes the tests play, DoIP entities' TLS
# certificates (good, for another host, expired), and an unrelated CA.
set -euo pipefail
pki_tool=$1 dir=$2
rm -rf "$dir" "$dir-other"
"$pki_tool" init --dir "$dir" >/dev/null
"$pki_tool" node --dir "$dir" --id app --ua /uoz/app >/dev/null
"$pki_tool" node --dir "$dir" --id agent --ua /ZDATA/UDS --group policy-agent >/dev/null
"$pki_tool" node --dir "$dir" --id peer1 --ua /test/peer1 --group grp-a --group grp-b >/dev/null
"$pki_tool" node --dir "$dir" --id peer2 --ua /test/peer2 --group grp-a >/dev/null
"$pki_tool" node --dir "$dir" --id dmc --dm-client >/dev/null
"$pki_tool" node --dir "$dir" --id noaddr --no-reply-address >/dev/null
"$pki_tool" node --dir "$dir" --id expired --ua /test/expired --expired >/dev/null
"$pki_tool" doip-entity --dir "$dir" >/dev/null
"$pki_tool" doip-entity --dir "$dir" --name elsewhere --host gw.example >/dev/null
"$pki_tool" doip-entity --dir "$dir" --name expired --expired >/dev/null
"$pki_tool" broker-config --dir "$dir" --port 1 --open-acl >/dev/null
"$pki_tool" init --dir "$dir-other" --ca-name "another CA" >/dev/null
"$pki_tool" node --dir "$dir-other" --id intruder --ua /test/peer1 >/dev/null
"$pki_tool" doip-entity --dir "$dir-other" --name foreign >/dev/null
echo "test PKI ready in $dir"
