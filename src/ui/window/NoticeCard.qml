// A notice as a card: its title, line, the reason when there is one, and
// its buttons. Faults are red, warnings amber, good news green.
import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Vellatone

Rectangle {
    id: card
    required property string noticeId
    required property string title
    required property string line
    required property string why
    required property string primary
    required property string secondary
    required property string tone

    objectName: "notice." + noticeId
    readonly property color toneColour: tone === "fault" ? Theme.fault
                                      : tone === "good" ? Theme.good : Theme.warn
    implicitHeight: content.implicitHeight + 2 * Theme.pad - 4
    radius: Theme.radius
    color: Qt.rgba(toneColour.r, toneColour.g, toneColour.b, Theme.dark ? 0.14 : 0.09)
    border.color: Qt.rgba(toneColour.r, toneColour.g, toneColour.b, 0.45)
    Accessible.role: Accessible.AlertMessage
    Accessible.name: title + ". " + line

    Rectangle {
        width: 4
        radius: 2
        anchors { left: parent.left; top: parent.top; bottom: parent.bottom; margins: 6 }
        color: card.toneColour
    }

    RowLayout {
        id: content
        anchors { fill: parent; leftMargin: Theme.pad + 4; rightMargin: Theme.pad / 2
                  topMargin: Theme.pad / 2; bottomMargin: Theme.pad / 2 }
        spacing: Theme.pad
        ColumnLayout {
            Layout.fillWidth: true
            spacing: 2
            Label {
                textFormat: Text.PlainText
                Layout.fillWidth: true
                text: card.title
                font.pixelSize: Theme.bodySize
                font.weight: Font.DemiBold
                color: Theme.text
                wrapMode: Text.WordWrap
            }
            Label {
                textFormat: Text.PlainText
                Layout.fillWidth: true
                text: card.line
                font.pixelSize: Theme.bodySize
                color: Theme.text
                wrapMode: Text.WordWrap
            }
            Label {
                textFormat: Text.PlainText
                Layout.fillWidth: true
                visible: card.why.length > 0
                text: card.why
                font.pixelSize: Theme.smallSize
                color: Theme.textMuted
                wrapMode: Text.WordWrap
            }
        }
        PillButton {
            objectName: "notice." + card.noticeId + ".secondary"
            visible: card.secondary.length > 0
            text: card.secondary
            onClicked: App.actOnNotice(card.noticeId, false)
        }
        PillButton {
            objectName: "notice." + card.noticeId + ".primary"
            visible: card.primary.length > 0
            text: card.primary
            primary: true
            onClicked: App.actOnNotice(card.noticeId, true)
        }
        ToolButton {
            objectName: "notice." + card.noticeId + ".dismiss"
            text: "\u2715"
            Accessible.name: qsTr("Dismiss %1").arg(card.title)
            onClicked: App.dismissNotice(card.noticeId)
        }
    }
}
