#include "journal/running.h"

#include <algorithm>
#include <QUrl>

namespace {
constexpr int MaxFiles = 2000; ///< of one order, by which reports are told apart
} // namespace

quint16 Reasons::numberOf(const QString& text) {
    if (text.isEmpty())
        return 0;
    const auto known = m_numbers.constFind(text);
    if (known != m_numbers.constEnd())
        return *known;
    if (m_texts.size() >= MaxTexts)
        return 0;
    m_texts.push_back(text);
    const auto number = static_cast<quint16>(m_texts.size());
    m_numbers.insert(text, number);
    return number;
}

// --- receipts ---

quint32 Running::offset(qint64 now) const {
    return static_cast<quint32>(std::clamp<qint64>(now - m_begun + 1, 1, ~0U));
}

int Running::find(const QString& sn, quint32 hint) {
    if (hint < m_receipts.size() && m_receipts[hint].sn == sn)
        return static_cast<int>(hint);
    for (auto place = static_cast<quint32>(m_places.size()); place < m_receipts.size(); ++place)
        m_places.insert(m_receipts[place].sn, place);
    return static_cast<int>(m_places.value(sn, ~0U));
}

quint32 Running::place(const QString& sn, std::optional<quint32> hint) {
    const bool isNew = m_isFresh && !hint;
    const int known = isNew ? -1 : find(sn, hint.value_or(~0U));
    if (known >= 0)
        return static_cast<quint32>(known);
    Receipt& receipt = m_receipts.emplace_back();
    receipt.sn = sn;
    ++m_counts[static_cast<size_t>(receipt.state)];
    const auto place = static_cast<quint32>(m_receipts.size() - 1);
    receipt.isChanged = true;
    m_changed.push_back(place);
    return place;
}

void Running::note(quint32 place, ReceiptState after, qint64 now) {
    Receipt& receipt = m_receipts[place];
    --m_counts[static_cast<size_t>(receipt.state)];
    ++m_counts[static_cast<size_t>(after)];
    receipt.state = after;
    receipt.ended =
        isOpen(after) || (receipt.sent == 0 && after != ReceiptState::Completed) ? 0 : offset(now);
    m_heard.push_back(place);
    if (!std::exchange(receipt.isChanged, true))
        m_changed.push_back(place);
}

Running::Heard Running::takeHeard() {
    Heard heard;
    std::sort(m_heard.begin(), m_heard.end());
    m_heard.erase(std::unique(m_heard.begin(), m_heard.end()), m_heard.end());
    for (const quint32 place : m_heard) {
        const Receipt& receipt = m_receipts[place];
        const bool isPlaying = receipt.state == ReceiptState::Sent || receipt.state == ReceiptState::Started;
        (isPlaying ? heard.playing : heard.silent) << receipt.sn;
    }
    m_heard.clear();
    return heard;
}

bool Running::hear(quint32 place, Evidence evidence, qint64 now, quint16 reason, quint64 by) {
    Receipt& receipt = m_receipts[place];
    const ReceiptState after = stateAfter(receipt.state, evidence);
    if (evidence == Evidence::Sent) {
        receipt.lastSent = offset(now);
        receipt.sent = receipt.sent == 0 ? receipt.lastSent : receipt.sent;
        start(now);
    }
    if (evidence == Evidence::Begun && after == ReceiptState::Started && receipt.started == 0)
        receipt.started = offset(now);
    m_lastHeard = now;
    if (after == receipt.state)
        return false;
    receipt.reason = reason;
    receipt.by = by;
    note(place, after, now);
    return true;
}

void Running::set(quint32 place, ReceiptState state, qint64 now, quint16 reason, quint64 by) {
    Receipt& receipt = m_receipts[place];
    if (state == ReceiptState::Sent || state == ReceiptState::Started) {
        receipt.lastSent = offset(now);
        receipt.sent = receipt.sent == 0 ? receipt.lastSent : receipt.sent;
        start(now);
    }
    if (state == ReceiptState::Started && receipt.started == 0)
        receipt.started = offset(now);
    receipt.reason = reason;
    receipt.by = by;
    m_lastHeard = now;
    note(place, state, now);
}

std::vector<quint32> Running::hearAll(ReceiptState state, Evidence evidence, qint64 now, quint16 reason) {
    std::vector<quint32> places;
    if (count(state) == 0)
        return places;
    for (quint32 place = 0; place < m_receipts.size(); ++place) {
        if (m_receipts[place].state == state && hear(place, evidence, now, reason))
            places.push_back(place);
    }
    return places;
}

std::vector<quint32> Running::unheard(qint64 latest, qint64 now) {
    std::vector<quint32> places;
    if (count(ReceiptState::Sent) == 0)
        return places;
    for (quint32 place = 0; place < m_receipts.size(); ++place) {
        const Receipt& receipt = m_receipts[place];
        if (receipt.state == ReceiptState::Sent && timeOf(receipt.lastSent) <= latest &&
            hear(place, Evidence::NotHeard, now))
            places.push_back(place);
    }
    return places;
}

std::vector<ReceiptRow> Running::takeChanges(const Reasons& reasons) {
    std::vector<ReceiptRow> rows;
    rows.reserve(m_changed.size());
    for (const quint32 place : m_changed) {
        Receipt& receipt = m_receipts[place];
        receipt.isChanged = false;
        rows.push_back({m_id, receipt.sn, reasons.textOf(receipt.reason), receipt.by,
                        wall(timeOf(receipt.sent)), wall(timeOf(receipt.started)),
                        wall(timeOf(receipt.ended)), receipt.state});
    }
    m_changed.clear();
    return rows;
}

// --- what it plays ---

QString Running::fileName(const QString& address) {
    const QString path = address.section(QLatin1Char('?'), 0, 0);
    return QUrl::fromPercentEncoding(path.section(QLatin1Char('/'), -1).toUtf8()).trimmed();
}

void Running::addFiles(const QStringList& files) {
    for (const QString& file : files) {
        if (m_files.size() < MaxFiles)
            m_files.insert(fileName(file));
    }
}

bool Running::isOwnFile(const QString& path) const {
    return m_files.contains(fileName(path));
}

// --- its life ---

void Running::start(qint64 now) {
    if (m_started == 0) {
        m_started = now;
        isRowDue = true;
    }
    if (m_state == BroadcastState::Waiting || m_state == BroadcastState::Done)
        m_state = BroadcastState::Playing; // one that was over goes on when it is sent again
    m_ended = m_state == BroadcastState::Playing ? 0 : m_ended;
    isTimeOver = false;
}

void Running::finish(BroadcastState state, const QString& reason, qint64 now) {
    m_state = state;
    m_reason = reason;
    m_ended = now;
    isRowDue = true;
}

BroadcastRow Running::row() const {
    return {m_id, m_broadcast, m_state, m_reason, wall(m_started), wall(m_ended), targets(), m_counts};
}
