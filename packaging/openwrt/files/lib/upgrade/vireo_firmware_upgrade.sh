# SPDX-License-Identifier: Apache-2.0
#
# OpenWrt's upgrade path drives vireo_firmware_upgrade through this file: sysupgrade,
# LuCI's "Flash image..." and ubus "system validate_firmware_image" source every
# /lib/upgrade/*.sh in name order and call the board's hooks, which this file defines:
#
#   platform_check_image IMAGE  the check (-C --report), every line of the tool on stderr;
#                               the tests "vireo_signature" and "vireo_device_match" and
#                               allow_backup come from the check's report, read with jshn;
#                               an image that fails either test can never be installed
#                               (broken, not forceable);
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

# Reads the report of "-C --report" in FILE through jshn into VIREO_SIGNATURE (the first
# image's header and signature verified: 1 or 0), VIREO_MATCH (the check's status is 0: 1 or
# 0) and VIREO_NO_BACKUP (1 when the upgrade would not keep the settings: in the UBI mode
# the target is the primary image, on raw flash the image writes partition OVERLAY). The
# tool parses the firmware file and the flag records; this reads only what it says.
vireo_read_report() {
	local line event old_ns keys key name verified status keeps
	VIREO_SIGNATURE=0
	VIREO_MATCH=0
	VIREO_NO_BACKUP=0
	verified=""
	type json_load >/dev/null 2>&1 || . /usr/share/libubox/jshn.sh
	json_set_namespace vireo_report old_ns
	while IFS= read -r line; do
		json_init
		json_load "$line" 2>/dev/null || continue
		json_get_var event event
		case "$event" in
		image)
			[ -n "$verified" ] || json_get_var verified verified
			;;
		plan)
			json_get_var keeps keeps_settings
			[ "$keeps" = 0 ] && VIREO_NO_BACKUP=1
			if json_is_a writes array; then
				json_select writes
				json_get_keys keys
				for key in $keys; do
					json_select "$key"
					json_get_var name name
					[ "$name" = "$2" ] && VIREO_NO_BACKUP=1
					json_select ..
				done
				json_select ..
			fi
			;;
		result)
			json_get_var status status
			[ "$status" = 0 ] && VIREO_MATCH=1
			;;
		esac
	done <"$1"
	json_cleanup
	json_set_namespace $old_ns
	[ "$verified" = 1 ] && VIREO_SIGNATURE=1
	return 0
}

# The hooks of validate_firmware_image; nothing where the caller has none.
vireo_notify() {
	type "$1" >/dev/null 2>&1 && "$@"
}

platform_check_image() {
	local image="$1" args report overlay
	args=$(vireo_mode_args)
	overlay=$(vireo_option overlay)
	report=$(mktemp /tmp/vireo_check.XXXXXX) || return 1
	# validate_firmware_image prints its JSON on stdout: every line of the tool on stderr.
	"$VIREO_TOOL" -C $args -u "$image" --report "$report" >&2 2>&1
	vireo_read_report "$report" "${overlay:-rootfs_data}"
	rm -f "$report"
	vireo_notify notify_firmware_test_result vireo_signature "$VIREO_SIGNATURE"
	vireo_notify notify_firmware_test_result vireo_device_match "$VIREO_MATCH"
	[ "$VIREO_NO_BACKUP" = 1 ] && vireo_notify notify_firmware_no_backup
	# A file whose signature fails, or none of whose images fits this device, can never be
	# installed: broken, which not even a forced upgrade may flash.
	[ "$VIREO_SIGNATURE" = 1 ] && [ "$VIREO_MATCH" = 1 ] && return 0
	vireo_notify notify_firmware_broken
	return 74
}

platform_do_upgrade() {
	"$VIREO_TOOL" -U $(vireo_mode_args) -u "$1"
}
