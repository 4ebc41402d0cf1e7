// render-help: turns the user's guide (Markdown) into the program's help file, one HTML page
// with its pictures embedded, so it can be installed beside the program and opened by any
// browser. Run at build time: render-help GUIDE.md OUTPUT.html
#include <QFile>
#include <QFileInfo>
#include <QFont>
#include <QGuiApplication>
#include <QRegularExpression>
#include <QTextBlock>
#include <QTextCursor>
#include <QTextDocument>
#include <cstdio>

namespace {

// A picture named relative to the guide, as a data address; other addresses stay as they are.
QString Embedded(const QString& source, const QString& guideDirectory) {
    if (source.contains(':') || !source.endsWith(".png", Qt::CaseInsensitive)) {
        return source;
    }
    QFile picture(guideDirectory + "/" + source);
    if (!picture.open(QIODevice::ReadOnly)) {
        std::fprintf(stderr, "render-help: missing picture %s\n", qPrintable(picture.fileName()));
        return source;
    }
    return "data:image/png;base64," + QString::fromLatin1(picture.readAll().toBase64());
}

// The address a heading has in the guide's own links: lower case, punctuation dropped, blanks
// as hyphens ("## 2. Installing" is "#2-installing").
QString HeadingAnchor(const QString& heading) {
    QString anchor;
    for (QChar c : heading.toLower()) {
        if (c.isLetterOrNumber() || c == '-' || c == '_') {
            anchor += c;
        } else if (c == ' ') {
            anchor += '-';
        }
    }
    return anchor;
}

// Gives every heading its anchor so that the guide's contents and cross references work.
void AnchorHeadings(QTextDocument& document) {
    for (QTextBlock block = document.begin(); block.isValid(); block = block.next()) {
        if (block.blockFormat().headingLevel() == 0) {
            continue;
        }
        QTextCursor cursor(block);
        cursor.setPosition(block.position());
        cursor.setPosition(block.position() + block.length() - 1, QTextCursor::KeepAnchor);
        QTextCharFormat format;
        format.setAnchor(true);
        format.setAnchorNames({HeadingAnchor(block.text())});
        cursor.mergeCharFormat(format);
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: render-help GUIDE.md OUTPUT.html\n");
        return 2;
    }
    // Fonts need a GUI application; no display is needed.
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
        qputenv("QT_QPA_PLATFORM", "offscreen");
    }
    QGuiApplication application(argc, argv);
    const QString guidePath = QString::fromLocal8Bit(argv[1]);
    QFile guide(guidePath);
    if (!guide.open(QIODevice::ReadOnly)) {
        std::fprintf(stderr, "render-help: cannot read %s\n", argv[1]);
        return 1;
    }
    const QString markdown = QString::fromUtf8(guide.readAll());
    QTextDocument document;
    QFont font("Sans Serif");
    font.setPointSize(11);
    document.setDefaultFont(font);
    document.setMarkdown(markdown);
    AnchorHeadings(document);
    QRegularExpression firstHeading("^# (.+)$", QRegularExpression::MultilineOption);
    QRegularExpressionMatch title = firstHeading.match(markdown);
    if (title.hasMatch()) {
        document.setMetaInformation(QTextDocument::DocumentTitle, title.captured(1));
    }
    QString html = document.toHtml();

    const QString guideDirectory = QFileInfo(guidePath).absolutePath();
    QRegularExpression image("<img src=\"([^\"]+)\"");
    QString embedded;
    qsizetype copied = 0;
    for (auto it = image.globalMatch(html); it.hasNext();) {
        QRegularExpressionMatch match = it.next();
        embedded += html.mid(copied, match.capturedStart(1) - copied);
        embedded += Embedded(match.captured(1), guideDirectory);
        copied = match.capturedEnd(1);
    }
    embedded += html.mid(copied);

    QFile output(QString::fromLocal8Bit(argv[2]));
    if (!output.open(QIODevice::WriteOnly | QIODevice::Truncate) ||
        output.write(embedded.toUtf8()) < 0 || !output.flush()) {
        std::fprintf(stderr, "render-help: cannot write %s\n", argv[2]);
        return 1;
    }
    return 0;
}
