#include "core/app/site.h"

namespace {

QString orDefault(const QString& value, const QString& fallback) {
    return value.isEmpty() ? fallback : value;
}

} // namespace

sqlite::Site siteOf(const Settings& settings) {
    sqlite::Site site;
    site.ownAddress = settings.text("LocalIP");
    site.preurl = settings.text("preurl");
    site.wxcxpreurl = settings.text("wxcxpreurl");
    site.warningurl =
        QStringLiteral("http://%1:%2/").arg(site.ownAddress).arg(settings.integer("listener/port"));
    site.ttsxfAPPID = settings.text("ttsxfAPPID");
    site.ttsxfAPISecret = settings.text("ttsxfAPISecret");
    site.ttsxfAPIKey = settings.text("ttsxfAPIKey");
    site.tasklenmin = settings.integer("tasklenmin");
    site.runingdir = settings.text("runingdir");
    site.programdir = orDefault(settings.text("programdir"), site.runingdir + QStringLiteral("/programs"));
    site.waringdir = settings.text("waringdir");
    site.waringfetch =
        orDefault(settings.text("waringfetch"), site.warningurl + QStringLiteral("user/fucktext?t="));
    site.silentclip = orDefault(settings.text("silentclip"), site.preurl + QStringLiteral("mp3/silence.mp3"));
    site.payKey = settings.text("PayKey");
    site.ownonly = settings.flag("ownonly");
    site.callbacktokens = settings.flag("callbacktokens");
    site.randomtokens = settings.flag("randomtokens");
    site.safeurls = settings.flag("safeurls");
    site.adminpictures = settings.flag("adminpictures");
    site.tokenpaths = settings.flag("tokenpaths");
    return site;
}
