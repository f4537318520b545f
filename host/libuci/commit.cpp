/// Committing: saved changes become part of the configuration file.
///
/// Order, so that a crash at any instant leaves the old or the new file, whole, and no change lost or done twice:
///   1. lock the configuration file, save what is unsaved, read the file anew, lock the change file and apply it;
///   2. write the new file beside the old one, and sync it;
///   3. append the commit mark to the change file (see delta.cpp), and sync it;
///   4. rename, and sync the directory;
///   5. empty the change file.
/// The new file is locked before the rename, so that the next committer waits until 5 is through.
#include "file.h"

#include <cerrno>
#include <unistd.h>

using namespace ucilib;

namespace {

class Commit {
public:
    Commit(uci_context* ctx, uci_package* old) : ctx_(ctx), old_(old)
    {
    }

    /// Commits; stores the package as it is then, in no list, in `fresh`.
    int run(OwnedPackage& fresh);

private:
    uci_context* ctx_;
    uci_package* old_;
    Fd file_;
    Fd changeFd_;
    ChangeFile changes_;

    int readChanges(uci_package* fresh, uint64_t digest, unsigned& applied);
    int replaceFile(const uci_package* fresh);
    int installMarked(Replacement& replacement, std::string_view text);
    void cutChanges(size_t size);
};

int Commit::run(OwnedPackage& fresh)
{
    if (openLocked(file_, old_->path, O_RDWR | O_CREAT, 0600, LOCK_EX) != UCI_OK)
        return UCI_ERR_IO;
    int code = uci_save(ctx_, old_);
    Text text;
    if (code == UCI_OK)
        code = readAll(file_.get(), text);
    if (code != UCI_OK)
        return code;
    const uint64_t digest = digestOf(text.view());
    unsigned applied = 0;
    code = buildPackage(ctx_, old_->e.name, old_->path, text.bytes(), digest, fresh, applied);
    if (code == UCI_OK)
        code = readChanges(fresh.get(), digest, applied);
    if (code == UCI_OK && applied)
        code = replaceFile(fresh.get());
    if (code != UCI_OK)
        return code;
    if (applied || changes_.committedPart)
        cutChanges(0);
    freeDeltas(fresh->saved_delta);
    return UCI_OK;
}

int Commit::readChanges(uci_package* fresh, uint64_t digest, unsigned& applied)
{
    const OwnedText path = joinPath(ctx_->savedir, fresh->e.name);
    if (!path)
        return UCI_ERR_MEM;
    int code = openLocked(changeFd_, path.get(), O_RDWR | O_APPEND, 0, LOCK_EX);
    if (code != UCI_OK)
        return code == UCI_ERR_NOTFOUND ? int(UCI_OK) : code;
    Text text;
    code = readAll(changeFd_.get(), text);
    if (code == UCI_OK)
        code = changes_.read(text.bytes(), fresh->e.name, digest);
    return code == UCI_OK ? changes_.apply(fresh, applied) : code;
}

int Commit::replaceFile(const uci_package* fresh)
{
    Text text;
    writePackage(text, fresh);
    if (text.failed())
        return UCI_ERR_MEM;
    const OwnedText target(realpath(old_->path, nullptr));
    if (!target)
        return errno == ENOMEM ? UCI_ERR_MEM : UCI_ERR_IO;
    struct stat old;
    if (fstat(file_.get(), &old) != 0)
        return UCI_ERR_IO;
    Replacement replacement(target.get(), fresh->e.name);
    const int code = replacement.prepare(text.view(), old.st_mode & 07777);
    return code == UCI_OK ? installMarked(replacement, text.view()) : code;
}

int Commit::installMarked(Replacement& replacement, std::string_view text)
{
    int code = UCI_OK;
    if (changes_.wholeSize > 0) {
        Text mark;
        writeCommitMark(mark, digestOf(text));
        cutChanges(changes_.wholeSize);
        if (mark.failed() || !writeAll(changeFd_.get(), mark.view()) || fsync(changeFd_.get()) != 0)
            code = mark.failed() ? UCI_ERR_MEM : UCI_ERR_IO;
    }
    if (code == UCI_OK)
        code = replacement.install();
    if (code != UCI_OK && !replacement.done())
        cutChanges(changes_.wholeSize); // takes the mark off again
    return code;
}

// Failing does no harm: the mark keeps what stays from being applied again, or is not valid.
void Commit::cutChanges(size_t size)
{
    if (changeFd_.isOpen() && ftruncate(changeFd_.get(), static_cast<off_t>(size)) != 0)
        return;
}

} // namespace

int uci_commit(struct uci_context* ctx, struct uci_package** package, bool)
{
    if (!package || !*package)
        return result(ctx, UCI_ERR_INVAL);
    ctx->parse_reason = nullptr;
    uci_package* old = *package;
    OwnedPackage fresh;
    const int code = Commit(ctx, old).run(fresh);
    if (code != UCI_OK)
        return result(ctx, code);
    listInsertBefore(old->e.list, fresh->e.list);
    listRemove(old->e.list);
    freePackage(old);
    *package = fresh.release();
    return result(ctx, UCI_OK);
}
