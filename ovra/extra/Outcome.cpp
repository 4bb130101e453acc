#include <ovra/extra/Outcome.h>

namespace ovra::extra {

char const* outcomeName(Outcome outcome) {
    switch (outcome) {
        case Outcome::DONE:
            return "DONE";
        case Outcome::DONE_NOT_SYNCED:
            return "DONE_NOT_SYNCED";
        case Outcome::MISSING:
            return "MISSING";
        case Outcome::EXISTS:
            return "EXISTS";
        case Outcome::DENIED:
            return "DENIED";
        case Outcome::READ_ONLY:
            return "READ_ONLY";
        case Outcome::FULL:
            return "FULL";
        case Outcome::BUSY:
            return "BUSY";
        case Outcome::WRONG_KIND:
            return "WRONG_KIND";
        case Outcome::NAME_TOO_LONG:
            return "NAME_TOO_LONG";
        case Outcome::TOO_MANY_LINKS:
            return "TOO_MANY_LINKS";
        case Outcome::NO_DESCRIPTORS:
            return "NO_DESCRIPTORS";
        case Outcome::NO_MEMORY:
            return "NO_MEMORY";
        case Outcome::DAMAGED:
            return "DAMAGED";
        case Outcome::REFUSED:
            return "REFUSED";
        case Outcome::OTHER:
            return "OTHER";
    }
    return "UNKNOWN";
}

Outcome outcomeOf(int systemError) {
    switch (systemError) {
        case 0:
            return Outcome::DONE;
        case ENOENT:
        case ENOTDIR:
            return Outcome::MISSING;
        case EEXIST:
        case ENOTEMPTY:
            return Outcome::EXISTS;
        case EACCES:
        case EPERM:
            return Outcome::DENIED;
        case EROFS:
            return Outcome::READ_ONLY;
        case ENOSPC:
        case EDQUOT:
        case EFBIG:
            return Outcome::FULL;
        case EBUSY:
        case ETXTBSY:
        case EAGAIN:
            return Outcome::BUSY;
        case EISDIR:
        case EINVAL:
        case EXDEV:
        case ENXIO:
        case ENODEV:
            return Outcome::WRONG_KIND;
        case ENAMETOOLONG:
            return Outcome::NAME_TOO_LONG;
        case ELOOP:
        case EMLINK:
            return Outcome::TOO_MANY_LINKS;
        case EMFILE:
        case ENFILE:
            return Outcome::NO_DESCRIPTORS;
        case ENOMEM:
            return Outcome::NO_MEMORY;
        case EIO:
        case EUCLEAN:
        case EBADMSG:
        case ESTALE:
            return Outcome::DAMAGED;
        default:
            return Outcome::OTHER;
    }
}

}  // namespace ovra::extra
