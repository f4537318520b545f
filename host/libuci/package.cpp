/// Loading, unloading and saving packages.
///
/// Locks: a reader holds a shared lock on the configuration file, and one on each change file while it reads it; so it
/// never sees a configuration file and change files of different times. A saver locks the change file alone.
#include "file.h"

#include <cerrno>
#include <cstring>
#include <unistd.h>

namespace ucilib {

OwnedText joinPath(const char* dir, const char* name)
{
    char* path = nullptr;
    return OwnedText(asprintf(&path, "%s/%s", dir, name) < 0 ? nullptr : path);
}

namespace {

// Applies one directory's saved changes. A file that cannot be read is as good as none.
int applyChangesFrom(const char* dir, uci_package* p, uint64_t digest, unsigned& applied)
{
    const OwnedText path = joinPath(dir, p->e.name);
    if (!path)
        return UCI_ERR_MEM;
    Fd fd;
    if (openLocked(fd, path.get(), O_RDONLY, 0, LOCK_SH) != UCI_OK)
        return UCI_OK;
    Text text;
    int code = readAll(fd.get(), text);
    if (code != UCI_OK)
        return code == UCI_ERR_MEM ? code : int(UCI_OK);
    ChangeFile changes;
    code = changes.read(text.bytes(), p->e.name, digest);
    return code == UCI_OK ? changes.apply(p, applied) : code;
}

int load(uci_context* ctx, const char* name, OwnedPackage& fresh)
{
    const OwnedText path = joinPath(ctx->confdir, name);
    if (!path)
        return UCI_ERR_MEM;
    Fd fd;
    int code = openLocked(fd, path.get(), O_RDONLY, 0, LOCK_SH);
    Text text;
    if (code == UCI_OK)
        code = readAll(fd.get(), text);
    if (code != UCI_OK)
        return code;
    const uint64_t digest = digestOf(text.view());
    unsigned applied = 0;
    code = buildPackage(ctx, name, path.get(), text.bytes(), digest, fresh, applied);
    return code == UCI_OK ? applyChangesFrom(ctx->savedir, fresh.get(), digest, applied) : code;
}

mode_t modeOf(const char* path, mode_t otherwise)
{
    struct stat info;
    return stat(path, &info) == 0 ? info.st_mode & 07777 : otherwise;
}

int makeSaveDirectory(const char* savedir, const char* configFile)
{
    struct stat info;
    if (stat(savedir, &info) == 0)
        return UCI_OK;
    const OwnedText configDir = directoryOf(configFile);
    if (!configDir)
        return UCI_ERR_MEM;
    return mkdir(savedir, modeOf(configDir.get(), 0700)) == 0 || errno == EEXIST ? UCI_OK : UCI_ERR_IO;
}

bool commentOut(int fd, size_t at)
{
    const int flags = fcntl(fd, F_GETFL); // what appends would write at the end
    const bool done = fcntl(fd, F_SETFL, flags & ~O_APPEND) == 0 && pwrite(fd, "#", 1, static_cast<off_t>(at)) == 1;
    return fcntl(fd, F_SETFL, flags) == 0 && done;
}

// Lines of a change file whose quote is never closed say nothing, but would take what is appended for their end. Good
// ones stand behind them, so they stay, as comments: a crash after any of these writes harms nothing.
bool commentOutOpenLines(int fd, std::string_view text)
{
    for (size_t at = 0; at < text.size();) {
        const ChangeLine line = changeLineAt(text, at);
        if (line.open && !commentOut(fd, at))
            return false;
        at = line.end;
    }
    return true;
}

// Puts lines behind the whole lines of a change file, or leaves these as they were.
int appendChanges(int fd, const uci_package* p, std::string_view lines)
{
    Text old;
    int code = readAll(fd, old);
    if (code != UCI_OK)
        return code;
    Text spoilt;
    spoilt << old.view();
    ChangeFile changes;
    code = spoilt.failed() ? int(UCI_ERR_MEM) : changes.read(spoilt.bytes(), p->e.name, 0);
    if (code != UCI_OK)
        return code;
    const auto size = static_cast<off_t>(changes.wholeSize);
    // What a writer that died left of a line would swallow ours.
    if ((changes.wholeSize < old.view().size() && ftruncate(fd, size) != 0) ||
        !commentOutOpenLines(fd, slice(old.view(), 0, changes.wholeSize)))
        return UCI_ERR_IO;
    if (writeAll(fd, lines))
        return UCI_OK;
    (void)!ftruncate(fd, size); // else the next saver removes what we wrote of a line
    return UCI_ERR_IO;
}

// From here on a write may be cut short by the writer's end: the kernel looks for it between two pages.
constexpr size_t LONG_SAVE = 1024;

int save(uci_context* ctx, uci_package* p)
{
    Text changes;
    uci_element* e = nullptr;
    uci_foreach_element (&p->delta, e) {
        writeDelta(changes, p->e.name, recordOf<uci_delta>(e));
    }
    Text lines;
    if (changes.view().size() > LONG_SAVE)
        writeSaveMark(lines, changes.view().size());
    lines << changes.view();
    const OwnedText path = joinPath(ctx->savedir, p->e.name);
    if (changes.failed() || lines.failed() || !path)
        return UCI_ERR_MEM;
    const int code = makeSaveDirectory(ctx->savedir, p->path);
    if (code != UCI_OK)
        return code;
    Fd fd;
    if (openLocked(fd, path.get(), O_RDWR | O_APPEND | O_CREAT, modeOf(p->path, 0600), LOCK_EX) != UCI_OK)
        return UCI_ERR_IO;
    return appendChanges(fd.get(), p, lines.view());
}

} // namespace

int buildPackage(uci_context* ctx, const char* name, const char* path, std::span<char> text, uint64_t digest,
                 OwnedPackage& fresh, unsigned& applied)
{
    fresh.reset(newPackage(ctx, name, path));
    if (!fresh)
        return UCI_ERR_MEM;
    const int code = parsePackage(ctx, fresh.get(), text);
    if (code != UCI_OK || strcmp(UCI_SAVEDIR, ctx->savedir) == 0)
        return code;
    return applyChangesFrom(UCI_SAVEDIR, fresh.get(), digest, applied);
}

} // namespace ucilib

using namespace ucilib;

int uci_load(struct uci_context* ctx, const char* name, struct uci_package** package)
{
    ctx->parse_reason = nullptr;
    if (!name || !validPackageName(name))
        return result(ctx, UCI_ERR_INVAL);
    if (findElement(ctx->root, name))
        return result(ctx, UCI_ERR_DUPLICATE);
    OwnedPackage fresh;
    const int code = load(ctx, name, fresh);
    if (code != UCI_OK)
        return result(ctx, code);
    listInsertBefore(ctx->root, fresh->e.list);
    if (package)
        *package = fresh.get();
    (void)fresh.release(); // the context's list owns it now
    return result(ctx, UCI_OK);
}

int uci_unload(struct uci_context* ctx, struct uci_package* p)
{
    if (!p)
        return result(ctx, UCI_ERR_INVAL);
    listRemove(p->e.list);
    freePackage(p);
    return result(ctx, UCI_OK);
}

int uci_save(struct uci_context* ctx, struct uci_package* p)
{
    if (!p)
        return result(ctx, UCI_ERR_INVAL);
    const int code = uci_list_empty(&p->delta) ? int(UCI_OK) : save(ctx, p);
    if (code == UCI_OK)
        freeDeltas(p->delta);
    return result(ctx, code);
}
