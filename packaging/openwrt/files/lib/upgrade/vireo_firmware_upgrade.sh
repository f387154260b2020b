# SPDX-License-Identifier: Apache-2.0
#
# OpenWrt's upgrade path drives vireo_firmware_upgrade through this file: sysupgrade,
# LuCI's "Flash image..." and ubus "system validate_firmware_image" source every
# /lib/upgrade/*.sh in name order and call the board's hooks, which this file defines:
#
#   platform_check_image IMAGE  the check (-C), every line of the tool on stderr, with the
#                               tests "vireo_signature" and "vireo_device_match"; an image
#                               that fails either can never be installed (broken, not
#                               forceable);
#   platform_do_upgrade IMAGE   the upgrade (-U) in stage2's RAM root; its status.
#
# Work mode: the option work_mode of /etc/config/vireo_firmware_upgrade: "ubi", "default"
# (raw flash) or "auto" (the default: the dual-image UBI mode when a UBI device holds the
# flag volumes "extra-para" and "extra-para.b", raw flash otherwise). ubi_id names the UBI
# device when "ubi" is asked for and none holds the flag volumes.
#
# Settings: the upgrade carries them over itself, in place; sysupgrade's backup archive is
# not restored (no platform_copy_config). The UBI mode copies "rootfs_data" and "log" onto
# their ".b" twins, which keeps the settings when the target is the backup image (the
# primary scores at least as high); when the target is the primary image the copy goes the
# other way, so the check reports that settings cannot be kept. Raw flash keeps every
# partition the image does not carry; a file that carries the overlay partition (option
# overlay, "rootfs_data") replaces the settings, and the check says so. "sysupgrade -n" does
# not reset settings the upgrade keeps.
#
# stage2 copies RAMFS_COPY_BIN (with the libraries ldd names) and RAMFS_COPY_DATA into its
# RAM root. It empties both before sourcing /lib/upgrade/*.sh; this file, named to come after
# a board's platform.sh, appends to what that file assigns.

VIREO_TOOL=/usr/sbin/vireo_firmware_upgrade
VIREO_CONFIG=/etc/config/vireo_firmware_upgrade

RAMFS_COPY_BIN="${RAMFS_COPY_BIN:+$RAMFS_COPY_BIN }$VIREO_TOOL"
command -v uci >/dev/null 2>&1 && RAMFS_COPY_BIN="$RAMFS_COPY_BIN $(command -v uci)"
RAMFS_COPY_DATA="${RAMFS_COPY_DATA:+$RAMFS_COPY_DATA }/etc/profile.d/profile $VIREO_CONFIG"

# An option of the package's settings, or nothing.
vireo_option() {
	command -v uci >/dev/null 2>&1 && uci -q get "vireo_firmware_upgrade.settings.$1"
}

# The number of the UBI device holding both flag volumes, or a failure.
vireo_flag_device() {
	local name dev primary="" backup=""
	for name in /sys/class/ubi/ubi*/ubi*_*/name; do
		[ -f "$name" ] || continue
		dev=${name#/sys/class/ubi/ubi}
		dev=${dev%%/*}
		case "$(cat "$name")" in
		extra-para) primary="$primary $dev " ;;
		extra-para.b) backup="$backup $dev " ;;
		esac
	done
	for dev in $primary; do
		case "$backup" in *" $dev "*) echo "$dev"; return 0 ;; esac
	done
	return 1
}

# The tool's options of the work mode: "-w ubi -p N" for UBI, nothing for raw flash.
vireo_mode_args() {
	local dev
	case "$(vireo_option work_mode)" in
	default | raw) ;;
	ubi)
		dev=$(vireo_flag_device) || dev=$(vireo_option ubi_id)
		echo "-w ubi -p ${dev:-0}"
		;;
	*) dev=$(vireo_flag_device) && echo "-w ubi -p $dev" ;;
	esac
	return 0
}

# The score in the flag record of volume NAME of UBI device DEV (0 when it has none).
vireo_score() {
	local name score
	for name in /sys/class/ubi/ubi$1/ubi$1_*/name; do
		[ "$(cat "$name" 2>/dev/null)" = "$2" ] || continue
		name=${name%/name}
		score=$(dd if="/dev/${name##*/}" bs=4096 count=1 2>/dev/null | tr -d '\000' |
			grep -o '"score":-*[0-9]*' | head -n 1)
	done
	echo "${score#*:}" | grep -x -- '-*[0-9][0-9]*' || echo 0
}

# Whether an image of firmware file FILE carries partition NAME: the names of the
# upgrade partition tables of its images.
vireo_carries() {
	strings "$1" | awk -v name="$2" '
		/"up-ptn-table"/ { table = 1 }
		table && /"name":/ { gsub(/[" \t,]/, ""); sub(/^name:/, ""); if ($0 == name) found = 1 }
		table && /^[ \t]*}[ \t]*\]/ { table = 0 }
		END { exit !found }'
}

# The hooks of validate_firmware_image; nothing where the caller has none.
vireo_notify() {
	type "$1" >/dev/null 2>&1 && "$@"
}

platform_check_image() {
	local image="$1" args signature match dev
	args=$(vireo_mode_args)
	# validate_firmware_image prints its JSON on stdout: every line of the tool on stderr.
	"$VIREO_TOOL" -t "$image" >&2 2>&1
	signature=$?
	"$VIREO_TOOL" -C $args -u "$image" >&2 2>&1
	match=$?
	vireo_notify notify_firmware_test_result vireo_signature "$([ $signature -eq 0 ] && echo 1 || echo 0)"
	vireo_notify notify_firmware_test_result vireo_device_match "$([ $match -eq 0 ] && echo 1 || echo 0)"
	if [ -n "$args" ]; then
		dev=${args##* }
		[ "$(vireo_score "$dev" extra-para)" -ge "$(vireo_score "$dev" extra-para.b)" ] ||
			vireo_notify notify_firmware_no_backup
	else
		local overlay
		overlay=$(vireo_option overlay)
		vireo_carries "$image" "${overlay:-rootfs_data}" && vireo_notify notify_firmware_no_backup
	fi
	# A file whose signature fails, or none of whose images fits this device, can never be
	# installed: broken, which not even a forced upgrade may flash.
	[ $signature -eq 0 ] && [ $match -eq 0 ] && return 0
	vireo_notify notify_firmware_broken
	return 74
}

platform_do_upgrade() {
	"$VIREO_TOOL" -U $(vireo_mode_args) -u "$1"
}
