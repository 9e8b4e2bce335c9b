#!/bin/sh
# Asks an Asterisk PBX to place a call, by a call file in its spool directory.
#
#   mkcall.sh INTERFACE ALARM NUMBER MESSAGE...
#
# It is the default command line of vesperd's script rules:
#   callscript = /usr/share/quillet/mkcall.sh %espa_if% %alarm% %number% %message%
#
#   INTERFACE  name for the line; vesperd passes the text "%espa_if%" as it stands
#   ALARM      name of the alarm, "message" for messages
#   NUMBER     call address; becomes the extension. Empty: the extension "s"
#   MESSAGE    the message, in any number of words
#
# The dialplan finds them in QUILLET_INTERFACE, QUILLET_ALARM, QUILLET_NUMBER and QUILLET_MESSAGE. A
# line of the file has at most 253 bytes: what is longer is cut, but a number is refused.
#
# Settings, from the environment; in callscript they go before the program's path:
#   MKCALL_SPOOL    where the PBX looks for call files (/var/spool/asterisk/outgoing)
#   MKCALL_TMP      where the file is written before it is moved there (/var/spool/quillet). Has to
#                   be on the same file system, or else the PBX may see a part of the file; under a
#                   sandbox that mounts directories one by one, on the same mount too.
#   MKCALL_CHANNEL  channel to call (Local/1234@users)
#   MKCALL_CONTEXT  context to connect it with (alarm)
#
# What vesperd puts in place of %number% and %message% reaches the shell before it reaches this
# script, and unquoted: a message decides what the shell runs, and an empty number moves every word
# of the message one place to the left. security.md in /usr/share/doc/vesperd has the way round.
#
# Exit status: 0 the file is in the spool directory; 1 it could not be written; 2 wrong arguments.
set -eu
LC_ALL=C
export LC_ALL

max_number=119 # it stands twice in one line

refuse() {
    echo "mkcall.sh: $1" >&2
    exit 2
}

[ "$#" -ge 3 ] || refuse "usage: mkcall.sh INTERFACE ALARM NUMBER MESSAGE..."
interface=$1
alarm=$2
number=$3
shift 3
spool=${MKCALL_SPOOL:-/var/spool/asterisk/outgoing}

case $number in
*[!0-9A-Za-z*+_.-]*) refuse "the number holds more than letters, digits and * + _ . -" ;;
esac
[ "${#number}" -le "$max_number" ] || refuse "the number is longer than $max_number characters"

file=$(mktemp -p "${MKCALL_TMP:-/var/spool/quillet}" .mkcall_XXXXXXXXXX)
trap 'rm -f "$file"' EXIT
# By way of the environment, because awk would take a backslash in a variable's value for an escape.
interface=$interface alarm=$alarm number=$number message=$* \
    channel=${MKCALL_CHANNEL:-Local/1234@users} context=${MKCALL_CONTEXT:-alarm} awk '
    # Control characters, which could begin another setting, become blanks. A comment would begin at a
    # "#" that comes first or behind a blank, which is dropped.
    function clean(text) {
        gsub(/[\001-\037\177]/, " ", text)
        sub(/^#+/, "", text)
        gsub(/ #+/, " ", text)
        sub(/ +$/, "", text)
        return text
    }

    # One line of a call file, where a ";" without a backslash would begin a comment. The PBX takes
    # what is behind its 255th byte for another setting. Neither a backslash and its ";" nor the bytes
    # of a UTF-8 character are parted.
    function line(key, value, end,    room, i) {
        room = 253 - length(key) - length(end)
        gsub(/;/, "\\\\&", value)
        if (length(value) > room) {
            for (i = 0; i < 3 && substr(value, room + 1, 1) ~ /[\200-\277]/; i++) {
                room--
            }
            if (substr(value, room + 1, 1) == ";") {
                room--
            }
            value = substr(value, 1, room)
            sub(/ +$/, "", value)
        }
        print key value end
    }

    BEGIN {
        number = ENVIRON["number"]
        alarm = ENVIRON["alarm"]
        gsub(/["<>]/, "", alarm)
        alarm = clean(alarm)
        line("Channel: ", clean(ENVIRON["channel"]))
        line("Context: ", clean(ENVIRON["context"]))
        line("Extension: ", number == "" ? "s" : number)
        line("Priority: ", 1)
        line("MaxRetries: ", 0)
        line("CallerID: \"", number == "" ? alarm : number, "\" <" number ">")
        line("Setvar: QUILLET_INTERFACE=", clean(ENVIRON["interface"]))
        line("Setvar: QUILLET_ALARM=", alarm)
        line("Setvar: QUILLET_NUMBER=", number)
        line("Setvar: QUILLET_MESSAGE=", clean(ENVIRON["message"]))
    }' >"$file"
chmod 0644 "$file" # the PBX reads it as another account
# No directory by that name may swallow the file, and the name is not taken: mktemp made it up.
mv -T "$file" "$spool/${file##*/.}"
trap - EXIT
