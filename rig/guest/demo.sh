# SPDX-License-Identifier: Apache-2.0
# Guest part of rig/demo.sh: shows the partitions, the table and the boot flag; with
# PHASE=upgrade runs -C and -U between.
. /lib/rig.sh
. /rig/config

show()
{
    echo "--- partitions the kernel has (/proc/mtd)"
    cat /proc/mtd
    echo "--- the table in the \"partition-table\" partition (vireo_firmware_upgrade -s -P)"
    rig_read_record "$(mtd_dev partition-table)" 0 /tmp/ptn.json
    vireo_firmware_upgrade -s -P /tmp/ptn.json | sed -n '/^---/,/^====/p' | grep -v '^===='
    show_flag
}

show_flag()
{
    echo "--- boot flag in \"extra-para\"$1"
    rig_read_record "$(mtd_dev extra-para)" 0 /tmp/flag.json
    tr -d '\0' </tmp/flag.json
    echo
}

# Runs the tool and shows the trace lines that tell what it decided and did.
demo_run()
{
    echo "# vireo_firmware_upgrade $*"
    local status=0
    vireo_firmware_upgrade "$@" >/rig/out/tool.log 2>&1 || status=$?
    cat /rig/out/tool.log >>/rig/out/traces.log
    grep -E 'match by|Firmware is|try next|moved|is new|same as old|no need|updated content|flag|Success|Fail|Faield|not available' \
        /rig/out/tool.log | sed 's/^[^|]*| /    /'
    echo "    exit status $status"
}

[ "$PHASE" = upgrade ] && echo "--- the router: $(uname -m), Linux $(uname -r)"
show
if [ "$PHASE" = upgrade ]; then
    cp /rig/up.bin /tmp/up.bin
    demo_run -C -u /tmp/up.bin
    demo_run -U -u /tmp/up.bin
    show_flag " after -U"
fi
