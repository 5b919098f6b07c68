#!/usr/bin/env bash
# Installs the packages in build/package/, uses what they bring, and purges them. For a Debian that is
# thrown away afterwards: scripts/package.sh --try runs this in one.
. "$(dirname "$0")/lib.sh"
cd "$project"
export LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive

step() { printf '\n\033[1m%s\033[0m\n' "$*"; }

# Everything but what is apt's and dpkg's own, or a cache that others make.
files() {
    find / -xdev \( -path /proc -o -path /tmp -o -path "$project" -o -path /var/lib/apt -o \
        -path /var/lib/dpkg -o -path /var/cache -o -path /var/log \) -prune -o -print | sort
}

step "A fresh Debian $(cat /etc/debian_version), $(dpkg-query -f '\n' -W | wc -l) packages"
files >/tmp/before

step "Install"
apt-get install -y --no-install-recommends ./build/package/*.deb | grep -E '^(The following NEW|  [a-z]|Setting up)'

step "Use"
peltexctl --version
mkdir -p /tmp/one/data/app /tmp/two
cp -a /usr/share/doc /tmp/one/data/app/files
chown -hR 10123:10123 /tmp/one/data/app
peltexctl --data /tmp/one backup split /data/data/app /data/data/backup --uid 10123 --slice-size 1 \
    --take /tmp/two/data/taken
ls /tmp/two/data/taken
peltexctl --data /tmp/two restore split /data/data/taken/app.tar.txt /data/data/app --uid 10123
diff -r --no-dereference /tmp/one/data/app /tmp/two/data/app
printf 'The same: %s entries.\n' "$(find /tmp/two/data/app | wc -l)"

step "Read"
man -w peltexctl
MANWIDTH=80 man --warnings peltexctl >/tmp/page 2>/tmp/warnings || fail "there is no manual page"
[ ! -s /tmp/warnings ] || fail "the manual page: $(cat /tmp/warnings)"
sed -n 1,5p /tmp/page
bash -c '. /usr/share/bash-completion/completions/peltexctl; complete -p peltexctl'
find /usr/share/doc/peltexctl /usr/share/doc/libpeltexinstalld-dev -name '*.md' >/tmp/pages
while read -r page; do
    for link in $(grep -oE '\]\([^)#]+' "$page" | cut -c 3- | grep -v '^http'); do
        [ -e "$(dirname "$page")/$link" ] || fail "$page leads to $link, which is not there"
    done
done </tmp/pages
printf '%s documents, and every link leads to one.\n' "$(wc -l </tmp/pages)"

step "Embed"
# Unquoted: what it prints are words.
g++ -std=c++17 tests/client/embed/embed.cpp -o /tmp/embed $(pkg-config --cflags --libs peltexinstalld)
mkdir -p /data/data
/tmp/embed "get_brief dir /data/data /data/data/brief default 0"
rm -r /data

step "Purge"
apt-get purge -y --autoremove peltexctl libpeltexinstalld1 libpeltexinstalld-dev |
    grep -E '^(Removing|Purging)'
files | diff /tmp/before - || fail "the packages left something"
[ -z "$(dpkg-query -f '${Package}\n' -W '*peltex*' 2>/dev/null)" ] || fail "dpkg knows them still"
printf 'Nothing is left.\n'
