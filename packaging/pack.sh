# shellcheck shell=bash
# Turns what is installed from a build folder into packages; sourced by packaging/build, whose arch, where and
# SOURCE_DATE_EPOCH it reads. Everything in a package is root's, and of the time of SOURCE_DATE_EPOCH.

readonly summary="manager daemon for the database servers of one machine"
readonly description="VelmoManager starts, stops, watches and lists the database servers of a
machine, which are system services (systemd or SysV), and answers the
product's setup and administration tools over TCP, UDP and a local pipe."

declare -A machine_names=([amd64]=x86_64 [arm64]=aarch64)

tool() { # TOOL ARGUMENT...
    local prefix=
    [[ $arch == "$(dpkg --print-architecture 2>/dev/null || echo amd64)" ]] || prefix=aarch64-linux-gnu-
    "$prefix$@"
}

fact() { # NAME
    sed -n "s/^$1=//p" "$build_folder/packaging/facts"
}

elf_files() { # FOLDER
    find "$1" -type f -print0 | LC_ALL=C sort -z | xargs -0 file -N00 -F '' | tr '\0' '\n' |
        awk '/^ *ELF / { print last } { last = $0 }'
}

# Debug symbols go where debuggers look them up, by the number of the build.
take_symbols() { # ROOT
    local file id place
    while read -r file; do
        id=$(tool readelf -n "$file" | sed -n 's/.*Build ID: //p')
        place=$staged/symbols/usr/lib/debug/.build-id/${id:0:2}
        mkdir -p "$place"
        tool objcopy --only-keep-debug --compress-debug-sections "$file" "$place/${id:2}.debug"
        chmod 0644 "$place/${id:2}.debug"
        tool strip --strip-unneeded --remove-section=.comment "$file"
    done < <(elf_files "$1")
}

install_into() { # ROOT COMPONENT...
    local component
    for component in "${@:2}"; do
        DESTDIR=$1 quietly "$build_folder/packages.log" cmake -DCMAKE_INSTALL_PREFIX=/ \
            -DCMAKE_INSTALL_COMPONENT="$component" -P "$build_folder/cmake_install.cmake"
    done
}

stage() {
    staged=$(mktemp -d)
    trap 'rm -rf "$staged"' EXIT
    install_into "$staged/rpm" system
    take_symbols "$staged/rpm"
    cp -a "$staged/rpm" "$staged/deb"
    install_into "$staged/deb" debian
    install_into "$staged/tgz" folder
    local program
    for program in "$staged"/rpm/opt/velmomanager/*; do # stripped already
        [[ ! -e $staged/tgz/${program##*/} ]] || cp "$program" "$staged/tgz/"
    done
    find "$staged" -exec touch -h -d "@$SOURCE_DATE_EPOCH" {} +
}

highest() { # FILE INTERFACE
    tool readelf -VW "$1" | sed -n "s/.*Name: $2_\\([0-9.]*\\) .*/\\1/p" | sort -V | tail -n 1
}

# What each file needs of the system's libraries. What the portable packages may need has a bound.
print_needs() {
    local file interface bound need bad=0
    local -a interfaces row
    mapfile -t interfaces < <(sed -n 's/^\([A-Z]*\) .*/\1/p' packaging/needs)
    printf '%-18s' "needs" "${interfaces[@]}" && echo
    while read -r file; do
        row=("${file##*/}")
        for interface in "${interfaces[@]}"; do
            need=$(highest "$file" "$interface")
            bound=$(sed -n "s/^$interface //p" packaging/needs)
            row+=("${need:--}")
            if [[ $where == portable && $(printf '%s\n' "$need" "$bound" | sort -V | tail -n 1) != "$bound" ]]; then
                bad=1
                row[-1]+=" (above $bound)"
            fi
        done
        printf '%-18s' "${row[@]}" && echo
    done < <(elf_files "$staged/rpm")
    ((bad == 0)) || die "the packages would not run on every supported release: see packaging/needs"
}

# For the tools of dpkg: what is packed is not for this machine.
deb_environment() {
    local line
    while read -r line; do
        [[ $line != DEB_HOST_* ]] || export "${line?}"
    done < <(dpkg-architecture -f -a "$arch" 2>/dev/null)
}

depends() { # ROOT
    local work=$staged/shlibdeps folder=$1
    mkdir -p "$work/debian"
    echo "Source: velmomanager" >"$work/debian/control"
    deb_environment
    (
        cd "$work"
        elf_files "$folder" | sed 's/^/-e/' | tr '\n' '\0' |
            xargs -0 dpkg-shlibdeps -O -l"$folder/opt/velmomanager" 2>>"$staged/shlibdeps.log"
    ) | sed -n 's/^shlibs:Depends=//p'
}

# As dpkg counts: files in whole KiB, everything else as one.
installed_size() { # ROOT
    find "$1" -mindepth 1 -path "$1/DEBIAN" -prune -o -mindepth 1 -type f -printf '%s\n' -o -mindepth 1 -printf '1\n' |
        awk '{ sum += int(($1 + 1023) / 1024) } END { print sum }'
}

write_deb() { # ROOT FILE [COMPRESSION_LEVEL]
    (cd "$1" && find . -path ./DEBIAN -prune -o -type f -printf '%P\0' | sort -z | xargs -0 md5sum >DEBIAN/md5sums)
    chmod 0644 "$1"/DEBIAN/{control,md5sums}
    find "$1" -exec touch -h -d "@$SOURCE_DATE_EPOCH" {} +
    quietly "$build_folder/packages.log" dpkg-deb --root-owner-group -Zxz -z"${3:-6}" --build "$1" "$2"
    echo "$2"
}

pack_deb() { # OUT
    local root=$staged/deb script
    mkdir -p "$root/DEBIAN"
    for script in postinst prerm postrm; do
        install -m 0755 "$build_folder/packaging/deb/$script" "$root/DEBIAN/"
    done
    {
        echo "Package: velmomanager"
        echo "Version: $version-1"
        echo "Architecture: $arch"
        echo "Maintainer: $(fact maintainer)"
        echo "Installed-Size: $(installed_size "$root")"
        echo "Depends: $(depends "$root")"
        echo "Section: database"
        echo "Priority: optional"
        echo "Description: $summary"
        sed 's/^/ /' <<<"$description"
    } >"$root/DEBIAN/control"
    grep -q '^Depends: .*libc6' "$root/DEBIAN/control" || die "dpkg-shlibdeps failed: $(<"$staged/shlibdeps.log")"
    write_deb "$root" "$1/velmomanager_$version-1_$arch.deb"
}

# Its symbols are compressed already.
pack_dbgsym() { # OUT
    local root=$staged/dbgsym
    mkdir -p "$root/DEBIAN" "$root/usr/share/doc"
    cp -a "$staged/symbols/." "$root/"
    ln -s velmomanager "$root/usr/share/doc/velmomanager-dbgsym"
    {
        echo "Package: velmomanager-dbgsym"
        echo "Version: $version-1"
        echo "Auto-Built-Package: debug-symbols"
        echo "Architecture: $arch"
        echo "Maintainer: $(fact maintainer)"
        echo "Installed-Size: $(installed_size "$root")"
        echo "Depends: velmomanager (= $version-1)"
        echo "Section: debug"
        echo "Priority: optional"
        echo "Description: debug symbols for velmomanager"
    } >"$root/DEBIAN/control"
    write_deb "$root" "$1/velmomanager-dbgsym_$version-1_$arch.deb" 1
}

write_tgz() { # FOLDER NAME OUT
    mkdir -p "$3"
    tar -C "$1" --sort=name --owner=0 --group=0 --numeric-owner --mtime="@$SOURCE_DATE_EPOCH" --format=gnu \
        --transform "s|^\\.|$2|" -cf - . | gzip -9n >"$3/$2.tar.gz"
    echo "$3/$2.tar.gz"
}

pack_tgz() { # OUT
    local machine_name=${machine_names[$arch]}
    write_tgz "$staged/tgz" "velmomanager-$version-$machine_name" "$1"
    write_tgz "$staged/symbols/usr/lib/debug" "velmomanager-debug-$version-$machine_name" "$1"
}

# The sections of CHANGELOG.md, each with its points; one without a date has the packages'.
rpm_changelog() {
    awk -v maintainer="$(fact maintainer)" -v today="$(date -u -d "@$SOURCE_DATE_EPOCH" +%F)" '
        function begin(version, date) {
            command = "LC_ALL=C date -u -d " date " \"+%a %b %d %Y\""; command | getline day; close(command)
            printf "%s* %s %s - %s-1\n", (n++ ? "\n" : ""), day, maintainer, version
        }
        /^## / { date = today; if (match($3, /[0-9]+-[0-9]+-[0-9]+/)) date = substr($3, RSTART, RLENGTH); begin($2, date); next }
        n { gsub(/%/, "%%"); gsub(/`/, "") }
        n && /^(- |  )/' CHANGELOG.md
}

# Folders that belong to the package, and no system's.
own_folders() {
    printf '%%dir /%s\n' opt/velmomanager usr/share/doc/velmomanager usr/share/doc/velmomanager/examples
}

rpm_recipe() {
    cat <<END
Name: velmomanager
Version: $version
Release: 1
Summary: $summary
License: See copyright
Vendor: VelmoManager maintainers
Packager: $(fact maintainer)
Group: Applications/Databases
%description
$description
%install
cp -a "$staged/rpm/." %{buildroot}/
%files
%defattr(-,root,root)
$(own_folders)
$(cd "$staged/rpm" && find . \( -type f -o -type l \) -printf '/%P\n' | LC_ALL=C sort)
%post
$(<"$build_folder/packaging/rpm/post")
%preun
$(<"$build_folder/packaging/rpm/preun")
%changelog
$(rpm_changelog)
END
}

# It strips and compresses nothing of its own accord, and says nothing about the machine and the hour.
pack_rpm() { # OUT
    command -v rpmbuild >/dev/null || die "rpmbuild is missing"
    local top=$staged/rpmbuild name=${machine_names[$arch]} define
    local -a defines=()
    for define in "_topdir $top" "debug_package %{nil}" "__os_install_post %{nil}" "_build_id_links none" \
        "_buildhost localhost" "use_source_date_epoch_as_buildtime 1" "clamp_mtime_to_source_date_epoch 1" \
        "_binary_payload w9.gzdio" "_source_payload w9.gzdio" "_rpmfilename %%{NAME}-%%{VERSION}-%%{RELEASE}.%%{ARCH}.rpm"; do
        defines+=(--define "$define")
    done
    mkdir -p "$top"
    rpm_recipe >"$top/velmomanager.rpm-recipe"
    quietly "$build_folder/packages.log" rpmbuild -bb --target "$name-linux" "${defines[@]}" "$top/velmomanager.rpm-recipe"
    cp "$top/RPMS/velmomanager-$version-1.$name.rpm" "$1/"
    echo "$1/velmomanager-$version-1.$name.rpm"
}

# Prints where the packages are.
stage_and_pack() { # BUILD_FOLDER OUT KIND...
    build_folder=$(realpath "$1")
    version=$(fact version)
    stage
    print_needs
    mkdir -p "$2"
    local kind
    for kind in "${@:3}"; do
        "pack_$kind" "$2"
    done
    rm -rf "$staged"
}
