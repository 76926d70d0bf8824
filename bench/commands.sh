# What the service is compared with: the same command lines in one shell.
#
#   sh commands.sh FUNCTION [ARGUMENT...]
#
# `measure` compares the calls of CUPS's tools in add and in rename_to with those of the service before
# it measures, and fails if they differ. A change of the service's command lines belongs here too.

ppd=postscript-hp:0/ppd/hplip/HP/hp-color_laserjet_8500-ps.ppd

# list ID: as a pattern of sed.
list() {
    LANG=C lpstat -v | sed -n 's/device for \(.*\): usb:.*=\('"$1"'\)$/\1 \2/p'
}

# create ID NAME: the name is without blanks.
create() {
    list "$1"
    lpadmin -p "$2" -u allow:all -m "$ppd" \
        -v "usb://HP/Color%20LaserJet%208500?serial=$1" -o printer-error-policy=retry-job -E \
        -D "$2" -L 'Host OS' -o printer-is-shared=false
    lpoptions -p "$2"
}

# add ID NAME: a CmdAddPrinter.
add() {
    list 'TAG.*'
    create "$1" "$2"
    list "$1"
    LANG=C lpstat -p "$2" | fgrep -q 'enabled since'
    list 'TAG.*'
    list 'TAG.*'
}

# rename_to OLD NEW COUNT: a CmdPrinterList that renames the queues OLD_0, OLD_1 ... of TAG0, TAG1 ...
rename_to() {
    list 'TAG.*'
    list 'TAG.*'
    n=0
    while [ $n -lt "$3" ]; do
        list 'TAG.*'
        LANG=C lpstat -v "$1_$n"
        lpadmin -x "$1_$n"
        create TAG$n "$2_$n"
        n=$((n + 1))
    done
}

# Up to the first request for a command.
start() {
    type lpadmin >/dev/null 2>&1
    lpstat >/dev/null 2>&1
    list 'TAG.*'
}

idle() {
    while :; do
        list 'TAG.*'
        sleep 1
    done
}

# watch UNIT: the unit's loop that looks for the device.
watch() {
    device=/proc/driver/qnt_kl
    eval "$(sed -n '/while sleep/,/done;/ { s/.*while/while/; s/;[^;]*kill.*//; s/ *\\$//; s/\$\$/$/g; p; }' "$1")"
}

"$@"
