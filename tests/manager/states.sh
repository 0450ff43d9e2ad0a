#!/bin/sh
# shellcheck disable=SC1091,SC2046,SC2086,SC2154
# In systemctl's place, for the servers of the file $DIR/servers. A word for a name is the server's state; a
# number is a failed one, which hangs at its start while there is a file $DIR/hang-NUMBER. A file $DIR/broken
# holds the pattern of calls that fail.

for LAST; do :; done
NAME=${LAST#DXCS-}
if [ -e $DIR/broken ]; then
    eval "case \"\$*\" in $(cat $DIR/broken)) exit 1 ;; esac"
fi
case "$*" in
list-units*)
    for s in other $(cat $DIR/servers); do
        echo "  $s.service l a r x"
    done
    ;;
start*)
    while [ -e $DIR/hang-$NAME ]; do
        sleep 0.05
    done
    echo >$DIR/up-$NAME
    ;;
*ActiveState*[0-9]) if [ -e $DIR/up-$NAME ]; then echo ActiveState=active; else echo ActiveState=failed; fi ;;
*ActiveState*) echo "ActiveState=$NAME" ;;
*Description*) printf 'Type=forking\nDescription=x\nExecStart={ argv[]=/x ; }\n' ;;
esac
