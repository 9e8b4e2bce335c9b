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
# The dialplan finds them in QUILLET_INTERFACE, QUILLET_ALARM, QUILLET_NUMBER and QUILLET_MESSAGE.
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

max_length=200 # the PBX reads lines of limited length

refuse() {
    echo "mkcall.sh: $1" >&2
    exit 2
}

# Prints a text that fits into one line of a call file. Control characters, which could begin
# another setting, become blanks. A comment would begin at ";", which is escaped, and at "#" after a
# blank, which is dropped.
one_line() {
    printf '%s' "$1" | tr '[:cntrl:]' ' ' | cut -c "1-$max_length" |
        sed 's/;/\\;/g; s/^#*//; s/ #*/ /g; s/ *$//'
}

[ "$#" -ge 3 ] || refuse "usage: mkcall.sh INTERFACE ALARM NUMBER MESSAGE..."
interface=$(one_line "$1")
alarm=$(one_line "$2" | tr -d '"<>')
number=$3
shift 3
message=$(one_line "$*")
spool=${MKCALL_SPOOL:-/var/spool/asterisk/outgoing}
channel=$(one_line "${MKCALL_CHANNEL:-Local/1234@users}")
context=$(one_line "${MKCALL_CONTEXT:-alarm}")

case $number in
*[!0-9A-Za-z*+_.-]*) refuse "the number holds more than letters, digits and * + _ . -" ;;
esac

file=$(mktemp -p "${MKCALL_TMP:-/var/spool/quillet}" .mkcall_XXXXXXXXXX)
trap 'rm -f "$file"' EXIT
cat >"$file" <<END
Channel: $channel
Context: $context
Extension: ${number:-s}
Priority: 1
MaxRetries: 0
CallerID: "${number:-$alarm}" <$number>
Setvar: QUILLET_INTERFACE=$interface
Setvar: QUILLET_ALARM=$alarm
Setvar: QUILLET_NUMBER=$number
Setvar: QUILLET_MESSAGE=$message
END
chmod 0644 "$file" # the PBX reads it as another account
# No directory by that name may swallow the file, and the name is not taken: mktemp made it up.
mv -T "$file" "$spool/${file##*/.}"
trap - EXIT
