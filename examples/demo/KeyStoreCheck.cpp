#include "KeyStoreCheck.h"

namespace QuorlixDemo {

KeyStoreCheck::Result KeyStoreCheck::run(const DirectoryProbe& probe, Quorlix::UserDefaults store)
{
    const QString loaded = QString::fromLatin1(loadedEntry);
    const QString aside = QString::fromLatin1(setAsideEntry);
    const QStringList wasLoaded = store.stringArray(loaded).value_or(QStringList());
    const QStringList wasAside = store.stringArray(aside).value_or(QStringList());

    Result result;
    QStringList keep;
    QStringList setAside;
    bool changed = false;
    for (const QStringList* list : {&wasLoaded, &wasAside}) {
        const bool fromAside = list == &wasAside;
        for (const QString& key : *list) {
            const DirectoryProbe::Answer answer = probe.lookUp(key);
            if (!answer.reachable) {
                result.problem = answer.problem;
                return result;
            }
            if (answer.key.isEmpty()) {
                setAside << key;
                if (!fromAside) {
                    changed = true;
                    result.notes << QStringLiteral("set aside stored key %1, not loaded: %2")
                                        .arg(key, answer.problem.isEmpty()
                                                      ? QStringLiteral("its record has no \"Key\"")
                                                      : answer.problem);
                }
            } else {
                keep << key;
                if (fromAside) {
                    changed = true;
                    result.notes << QStringLiteral("restored stored key %1: the directory "
                                                   "knows it again")
                                        .arg(key);
                }
            }
        }
    }
    if (!changed)
        return result;
    // The set-aside entry is written first: a failure between the two writes leaves a key in
    // both entries rather than in none.
    if (!store.setStringArray(aside, setAside) || !store.setStringArray(loaded, keep))
        result.problem = QStringLiteral("cannot write the key store %1").arg(store.fileName());
    else if (!setAside.isEmpty())
        result.notes << QStringLiteral("kept aside in the key store under %1: %2")
                            .arg(aside, setAside.join(u' '));
    return result;
}

} // namespace QuorlixDemo
