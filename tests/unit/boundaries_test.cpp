// What hostile input reaches outside of the two paths that a task names, and what it does not: the
// rows of docs/BOUNDARIES.md. The formats let some of it out by design: such a row fails when it no
// longer does, and the document has to change with it.
//
//   %/secret  %/dir/kept  %/empty  %/zeros      in /tmp
//   @/src @/in        what a task is given
//   @/to              where it works, beside @/to2/f
#include <pthread.h>
#include <unistd.h>

#include <filesystem>

#include "tests/unit/transcript.h"

namespace peltex_test {
namespace {

class Boundaries : public Transcript {
  protected:
    Boundaries() {
        outside = "/tmp/outside" + std::to_string(getpid());
        // Each row begins anew: commands that take a file's text, and those on a planted source.
        onText("unpack", "restore tar", "@/in/a.tar", "@/to", archiveOf);
        onText("set", "restore split", "@/in/s.txt", "@/to/app", joined);
        onText("records", "restore dir", "@/in/to.txt", "@/to", joined);
        onText("list", "backup byfile", "@/in/list", "@/to/app", joined);
        onText("search", "get_brief byfile", "@/in/rules", "@/to/brief", joined);
        act("anew", [this](const Lines& words) { begin(words); });
        commands["reach"] = [this](const Lines& words) {
            const Lines rest(words.begin() + 2, words.end());
            const std::string result = commands.at(words.at(0) + " " + words.at(1))(rest);
            return result + told();
        };
    }

    ~Boundaries() override { std::filesystem::remove_all(outside); }

    void onText(const std::string& name, const std::string& command, const char* path,
                const char* destination, std::string (*textOf)(const Lines&)) {
        commands[name] = [=](const Lines& words) {
            begin({"in/to/", "in/app/", "in/fifo|", "in/link>" + outside + "/secret"});
            writeFile(meaning(path), textOf(words));
            const std::string from = meaning(command == "restore dir" ? "@/in" : path);
            const std::string result = commands.at(command)({from, meaning(destination)});
            return result + told();
        };
    }
    static std::string joined(const Lines& words) {
        std::string text;
        for (const std::string& word : words) {
            text += word + "\n";
        }
        return text;
    }

    void begin(const Lines& words) {
        std::filesystem::remove_all(outside);
        plant(outside, {"secret[600]=" + kSecret, "dir/kept=", "empty=", "zeros="});
        std::filesystem::resize_file(outside + "/zeros", 1024);
        emptyDir(tree->path());
        plant(tree->path(), {"[0:0,755]", "to/", "to2/f=beside"});
        plant(tree->path(), words);
        mBefore = look();
    }

    std::map<std::string, Snapshot> look() const {
        return {{"", snapshotOf(outside)}, {"to2/", snapshotOf(*tree / "to2")}};
    }

    // What is not as it was, and where the secret has gone.
    std::string told() {
        std::string text;
        const std::map<std::string, Snapshot> now = look();
        for (const auto& [prefix, snapshot] : mBefore) {
            for (const std::string& change : changesBetween(snapshot, now.at(prefix))) {
                text += ", " + prefix + change;
            }
        }
        if (ownerAndMode(tree->path()) != "0:0 755") {
            text += ", above: " + ownerAndMode(tree->path());
        }
        std::string leaks;
        for (const std::string& name : listTree(*tree / "to")) {
            const std::string path = *tree / "to/" + name;
            const std::string content = S_ISREG(statOf(path).st_mode) ? readFile(path) : "";
            leaks += content.find(kSecret) != content.npos      ? ", secret read"
                     : content.find("/secret;") != content.npos ? ", secret named"
                                                                : "";
        }
        events.clear();
        return text + leaks;
    }

    const std::string kSecret = "what-nobody-else-may-read";
    std::map<std::string, Snapshot> mBefore;
};

TEST_F(Boundaries, OfArchives) {
    expect(R"(
? unpack 0:x/../../to2/f=x end = -1
? unpack 0:%/secret=x end = 0
? unpack L:{n*2046} 0:f= end = -1
? unpack 5:..[1:2,777] end = 0, above: 1:2 777
? unpack 2:l>%/dir 0:l/kept=x 0:l/new=x 5:l/d/ end = 0, dir/kept: written, dir/d: made, dir/new:
    made
? unpack 2:l>%/secret 0:l[10001:10001,666]= end = 0, secret: written, secret: 10123:10123 666
? unpack 2:l>%/secret 5:l[1:1,666] end = 0, secret: 1:1 666
? unpack 2:l>% 2:l/secret>/ 0:l/empty{124,00000011610}= = -5, empty: removed, secret: replaced
? unpack 1:n>%/secret 3:n>%/secret 4:n>%/secret 6:n>%/secret 7:n>%/secret end = 0
)");
}

TEST_F(Boundaries, OfTexts) {
    expect(R"(
# A check file: slices elsewhere are unpacked and removed, when they read as such.
? set ../../../..%/empty|0 ../../../..%/zeros|1024 = 0, empty: removed, zeros: removed
? set ../../../..%/secret|25 = -3
? set ../../../..%/empty|0 ../../../..%/zeros|1 = -1

# Records of a directory copy: modes of files and directories.
? records %/secret;2559;0;1;1 = 0, secret: 0:0 4777
? records @/in/link;511;0;1;1 = 0
# A list that is backed up by: any file is read, and by ../ written.
? list %/secret;384;0;6;1 = 0, secret named, secret read
? list @/in/app/../../../../../../..%/secret;384;0;6;1 = 0, secret: written, secret: 10123:10123
    771, secret named
? list /dev/zero;384;0;6;1 @/in/fifo;384;0;6;1 @/in/link;384;0;6;1 = 0
# A search file: names below any directory.
? search [include]% = 0, secret named
)");
}

TEST_F(Boundaries, OfSources) {
    expect(R"(
# Links in a tree are not followed.
$ anew src/f=x src/link>%/secret src/dir>%
? reach backup dir @/src @/to = 0
? reach backup tar @/src @/to = 0
? reach get_brief dir @/src @/to/brief = 0
? reach move dir @/src @/to = -19
# A source that is a link is.
$ anew src>%
? reach backup dir @/src @/to = 0, secret named, secret read
$ anew src>%
? reach backup tar @/src @/to = 0, secret read
$ anew src>%
? reach get_brief dir @/src @/to/brief = 0, secret named
$ anew src>%
? reach move dir @/src @/to = 0, dir: removed, dir/kept: removed, empty: removed, secret: removed,
    zeros: removed, secret read
# Hard links are read by copies.
$ anew src/f&../../..%/secret
? reach backup tar @/src @/to = 0
? reach backup dir @/src @/to = 0, secret read
# A name that looks like a record, with the path of a file elsewhere behind it.
$ anew src/a=x src/a;420;0;1;1\n%/secret[4777]=x src/a;420;0;1;1\n/tmp/[1777]
? reach backup dir @/src @/to = 0, secret named
? reach restore dir @/to @/src = 0, secret: 0:0 4777, secret named
$ anew src/a=x src/a;420;0;1;1\n%/secret=x
? reach get_brief dir @/src @/to/brief = 0, secret named
? reach backup byfile @/to/brief @/to/src = 0, secret named, secret named, secret read
# A file that becomes a link between the look at it and its opening.
$ anew src/f=x to/src/f>other to/src/other=
$ when link @/src/f %/secret at Failed to isDir S_ISLNK
? reach backup dir @/src @/to = -12
)");
}

TEST_F(Boundaries, OfDestinations) {
    expect(R"(
$ anew src/f=x to/src.tar>%/secret
? reach backup tar @/src @/to = 0, secret: written, secret: 10123:10123 660
$ anew src/f=x to/src.tar.0>%/secret
? reach backup split @/src @/to 1 = 0, secret: written, secret: 10123:10123 660
$ anew src/f=x to/src.tar.txt>%/secret
? reach backup split @/src @/to 1 = 0, secret: written, secret: 10123:10123 660
$ anew src/f=x to/src.txt>%/secret
? reach backup dir @/src @/to = 0, secret: written, secret: 10123:10123 771
$ anew src/f=x to/brief>%/secret
? reach get_brief dir @/src @/to/brief = 0, secret: written, secret: 10123:10123 771
$ anew src/f=x to/f>%/secret
? reach restore file @/src/f @/to/f = 0, secret: written, secret: 10123:10123 771
$ anew src/to/f=x to/f>%/secret
? reach restore dir @/src @/to = 0
$ anew src/to/f=x to/f>%/new
? reach restore dir @/src @/to = 0, new: made
$ anew src/to/d/new=x to/d>%/dir
? reach restore dir @/src @/to = 0, dir/new: made
$ anew src/to/f=x to/f>../to2/f
? reach restore dir @/src @/to = 0, to2/f: written, to2/f: 10123:10123 771
)");
}

// As small a stack as the platform gives its threads, and a descriptor per level.
TEST_F(Boundaries, OfDepth) {
    act("deep", [this](const Lines& /*words*/) {
        tree.emplace();
        std::string path = "src";
        while (tree->path().size() + path.size() + 10 < 2000) {
            path += "/d";
        }
        plant(tree->path(), {path + "/f=x"});
    });
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, 1 << 20);
    pthread_t thread;
    const auto run = [](void* test) -> void* {
        static_cast<Boundaries*>(test)->expect(R"(
$ deep
$ descriptors 64
? backup tar @/src @/t = -13 backupTarBase failed to tar, src: @/src, dst: @/t/src.tar
? backup dir @/src @/t = -12 backup failed, copyDir error!
? move dir @/src @/u = -19 move failed, copyDir error!
? backup file @/t/src.txt @/v = 0 label @/v info 10123 4
$ descriptors 4096
? backup tar @/src @/t = 0 label @/t info 10123 4
? backup dir @/src @/t = 0 label @/t info 10123 4
? get_brief dir @/src @/t/brief = 0
? move dir @/src @/u = 0 label @/u info 10123 4
? restore tar @/t/src.tar @/t = 0 label @/t info 10123 4
)");
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, &attributes, run, this), 0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
}

}  // namespace
}  // namespace peltex_test
