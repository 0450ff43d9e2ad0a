#!/bin/sh
# shellcheck disable=SC1091,SC2046,SC2086,SC2154
# In systemctl's place: sixty servers. Asked for several at once, $DIR/batch spoils the blocks that are right.

show() {
    case $1 in
    *-7 | *-60) printf 'Id=%s.service\nType=\nDescription=%s.service\n' $1 $1 ;;
    *)
        printf 'Id=%s.service\nDescription=of %s\nType=forking\n' $1 $1
        printf 'ExecStart={ path=/s/%s ; argv[]=/s/%s --SERVICE %s ; }\n' $1 $1 $1
        ;;
    esac
}
blocks() {
    first=1
    for u; do
        [ $first ] || echo
        first=
        show $u
    done
}
case "$*" in
list-units*) for n in $(seq 60); do echo "  DXCS-$n.service l a r A"; done ;;
*=Id,*) shift 2; . $DIR/batch ;;
*show*) show $3 | grep -v ^Id= ;;
esac
