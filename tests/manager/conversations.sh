#!/bin/sh
# shellcheck disable=SC1091,SC2046,SC2086,SC2154
# In systemctl's place. "show" knows DXCS-a, DXCS-Café and DXCS-bad; the state of a server is in the file
# $DIR/state; "start DXCS-bad" and "stop DXCS-bad" are refused. A call takes as long as the files $DIR/slow and
# $DIR/slow-VERB say. A file $DIR/broken holds the pattern of calls that fail.

for f in $DIR/slow $DIR/slow-$1; do
    [ ! -e $f ] || sleep $(cat $f)
done
if [ -e $DIR/broken ]; then
    eval "case \"\$*\" in $(cat $DIR/broken)) exit 1 ;; esac"
fi
case "$*" in
--no-pager*) exit 0 ;;
list-unit-files*)
    [ ! -e $DIR/fails ] || exit 1
    [ ! -e $DIR/other ] || echo "DXCS-other.service disabled"
    ;;
*show\ DXCS-other) printf 'Type=forking\nExecStart={ argv[]=%s --SERVICE %s ; }\n' "$(cat $DIR/other)" "$3" ;;
list-units*) printf '  DXCS-a.service l a r A\n  DXCS-Caf\\xc3\\xa9.service l a r D\n' ;;
*ActiveState*) echo "ActiveState=$(cat $DIR/state 2>/dev/null || echo active)" ;;
*FragmentPath*) echo "P=$DIR/unit" ;;
*SourcePath*) echo "P=" ;;
"start DXCS-bad"|"stop DXCS-bad") exit 1 ;;
stop*) echo inactive >$DIR/state ;;
*show\ dxsql) printf 'Type=forking\nExecStart={ argv[]=%s/default/dx --SERVICE dxsql ; }\nDescription=dxsql\n' "$DIR" ;;
*show\ DXCS-a|*show\ DXCS-bad) printf 'Type=forking\nExecStart={ argv[]=%s/srv/dx --SERVICE %s ; }\nDescription=%s\n' "$DIR" "$3" "$3" ;;
*show\ 'DXCS-Caf\xc3\xa9') printf 'Type=forking\nExecStart={ argv[]=/none/dx --SERVICE x ; }\nDescription=DXCS-Café\n' ;;
*show*) printf 'Type=\nDescription=%s\n' "$3" ;;
esac
