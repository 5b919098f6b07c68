#!/usr/bin/env bash
# The main job on real files: an application's directory is backed up and restored, first as plain
# copies, then in slices that are taken away one by one and restored on another "device" (another
# root, another uid). Everything happens in a throw-away root; nothing stays.
. "$(dirname "$0")/lib.sh"

if [ "${1:-}" != inside ]; then
    need_packages $packages_build
    printf 'Building ...\n'
    build release peltexctl peltexinstalld
    exec "$project/scripts/sandbox.sh" -- bash scripts/demo.sh inside
fi

ctl="$project/build/release/peltexctl"
app=com.example.app
one=/tmp/device-one
two=/tmp/device-two

step() { printf '\n\033[1m%s\033[0m\n' "$*"; }

# run COMMAND...: shows the command, then runs it.
run() {
    printf '$ peltexctl %s\n' "$*"
    "$ctl" "$@"
}

# compare SOURCE COPY UID: content, and what every entry is, owned by and allowed. Hard-linked names
# are no part of an archive; this tree has none.
compare() {
    local differing entries
    entries=$(find "$2" -mindepth 1 | wc -l)
    diff -r --no-dereference "$1" "$2" || fail "contents differ"
    differing=$(diff <(cd "$1" && find . -mindepth 1 ! -type d -printf '%P %y %m %s %l\n' | sort) \
                     <(cd "$2" && find . -mindepth 1 ! -type d -printf '%P %y %m %s %l\n' | sort) || true)
    [ -z "$differing" ] || fail "entries differ: $differing"
    [ -z "$(find "$2" -mindepth 1 ! -uid "$3" -print -quit)" ] || fail "an owner is not $3"
    printf 'The same: %s entries, their contents, types, modes and link targets; owner %s.\n' \
        "$entries" "$3"
}

step "A real tree as the data of $app (uid 10123) on device one"
mkdir -p "$one/data/$app" "$two"
cp -a /usr/share/doc "$one/data/$app/files"
# What a directory copy leaves out has its own tests: here every entry is one that it takes.
cp -a "$one/data/$app" "$one/data/com.example.plain"
find "$one/data/com.example.plain" -type l -delete
chown -hR 10123:10123 "$one/data/$app" "$one/data/com.example.plain"
find "$one/data/$app" | wc -l | xargs printf '%s entries, '
du -sh "$one/data/$app" | cut -f 1

step "Copies: the directory, with a record of its permissions beside it"
run --data "$one" --json backup dir /data/data/com.example.plain /data/data/backup --uid 10123 |
    grep -v '"code":3'
(cd "$one/data/backup" && ls -ld com.example.plain com.example.plain.txt &&
    head -n 3 com.example.plain.txt)

step "... restored in place of the original"
find "$one/data/com.example.plain" -type f -exec sha256sum {} + | sort >/tmp/before
find "$one/data/com.example.plain" -printf '%P %y %m %s\n' | grep -v ' d ' | sort >/tmp/before-modes
find "$one/data/com.example.plain" -type f -exec sh -c 'for f; do : >"$f"; chmod 0 "$f"; done' _ {} +
run --data "$one" restore dir /data/data/backup /data/data/com.example.plain --uid 10123
find "$one/data/com.example.plain" -type f -exec sha256sum {} + | sort | diff /tmp/before - ||
    fail "contents differ"
find "$one/data/com.example.plain" -printf '%P %y %m %s\n' | grep -v ' d ' | sort |
    diff /tmp/before-modes - || fail "modes differ"
printf 'The same: contents and modes of %s files.\n' "$(wc -l </tmp/before)"

step "Slices of 32 MiB: each is taken away as it is handed over"
run --data "$one" --json backup split "/data/data/$app" /data/data/backup --uid 10123 \
    --slice-size 32 --take "$two/data/taken" | grep -v '"code":3'
ls -l "$two/data/taken"
cat "$two/data/taken/$app.tar.txt"
run --data "$two" list "/data/data/taken/$app.tar.txt" | sed -n 1,3p

step "... and restored on device two, for uid 10456"
run --data "$two" restore split "/data/data/taken/$app.tar.txt" "/data/data/$app" --uid 10456
compare "$one/data/$app" "$two/data/$app" 10456

step "What a backup would hold: a brief, by a search file with CRLF line ends"
printf '[include]/data/data/%s/files\r\n[exclude]/data/data/%s/files/perl\r\n' "$app" "$app" \
    >"$one/data/search"
run --data "$one" --log silent brief byfile /data/data/search /data/data/brief --uid 10123
printf '%s lines, such as\n' "$(wc -l <"$one/data/brief")"
sed -n 1,2p "$one/data/brief"

step "... edited by hand (every third line out, one broken line in), and backed up by that list"
awk 'NR % 3 { print } NR == 10 { print "this is no record" }' "$one/data/brief" >"$one/data/edited"
run --data "$one" --log silent backup byfile /data/data/edited "/data/data/chosen/$app" --uid 10123
cut -d ';' -f 1 "$one/data/edited" | grep ^/ | sed "s|^/data/data/$app/||" | sort >/tmp/listed
(cd "$one/data/chosen/$app/$app" && find files -type f | sort) >/tmp/copied
while read -r name; do
    [ -d "$one/data/$app/$name" ] || printf '%s\n' "$name"
done </tmp/listed | diff - /tmp/copied || fail "what was copied is not what was listed"
while read -r name; do
    cmp "$one/data/$app/$name" "$one/data/chosen/$app/$app/$name" || fail "contents differ"
done </tmp/copied
printf 'The same: the %s files that were listed, and no other.\n' "$(wc -l </tmp/copied)"
