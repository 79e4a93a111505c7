// "Invite guests": the QR code and the link a phone opens, the count of
// phones in, and what to do when nobody arrives or nobody can.
import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Vellatone.Sheets

Popup {
    id: sheet

    property QtObject app

    objectName: "inviteSheet"
    modal: true
    focus: true
    anchors.centerIn: Overlay.overlay
    width: Math.min(440, (parent ? parent.width : 440) - 32)
    padding: 24
    closePolicy: Popup.CloseOnEscape

    onAboutToShow: invite.open()

    InvitationSheetController {
        id: invite
        app: sheet.app
    }

    background: Rectangle {
        color: sheet.palette.base
        border.color: sheet.palette.mid
        radius: 10
    }

    Overlay.modal: Rectangle { color: Qt.rgba(0, 0, 0, 0.35) }

    contentItem: ColumnLayout {
        spacing: 14

        Label {
            textFormat: Text.PlainText
            text: "Invite guests"
            font.pixelSize: 18
            font.bold: true
            Layout.fillWidth: true
            Accessible.role: Accessible.Heading
        }

        QrCode {
            objectName: "invite.qr"
            text: invite.joinURL
            visible: invite.hasLink
            Layout.alignment: Qt.AlignHCenter
            Layout.preferredWidth: Math.min(implicitWidth, sheet.availableWidth)
            Layout.preferredHeight: Layout.preferredWidth
            Accessible.role: Accessible.Graphic
            Accessible.name: "QR code of " + invite.joinURL
        }

        Label {
            textFormat: Text.PlainText
            text: "Guests point their camera here, or open"
            visible: invite.hasLink
            wrapMode: Text.WordWrap
            horizontalAlignment: Text.AlignHCenter
            Layout.fillWidth: true
        }

        RowLayout {
            visible: invite.hasLink
            spacing: 8
            Layout.fillWidth: true

            TextField {
                objectName: "invite.link"
                text: invite.joinURL
                readOnly: true
                selectByMouse: true
                font.family: "monospace"
                Layout.fillWidth: true
                Accessible.name: "Link for guests"
            }

            Button {
                objectName: "invite.copy"
                text: invite.copyLabel
                // Wide enough for either word, so the row does not jump.
                Layout.preferredWidth: Math.max(implicitWidth, 84)
                onClicked: invite.copy()
                Accessible.name: invite.copied ? "Link copied" : "Copy link"
            }
        }

        Label {
            textFormat: Text.PlainText
            objectName: "invite.count"
            text: invite.countText
            visible: invite.hasLink
            font.bold: true
            horizontalAlignment: Text.AlignHCenter
            Layout.fillWidth: true
        }

        Label {
            textFormat: Text.PlainText
            objectName: "invite.firewallHint"
            text: invite.firewallHint
            visible: invite.showFirewallHint
            wrapMode: Text.WordWrap
            horizontalAlignment: Text.AlignHCenter
            color: Qt.rgba(sheet.palette.windowText.r, sheet.palette.windowText.g,
                           sheet.palette.windowText.b, 0.75)
            Layout.fillWidth: true
        }

        Label {
            textFormat: Text.PlainText
            objectName: "invite.message"
            text: invite.message
            visible: !invite.hasLink
            wrapMode: Text.WordWrap
            Layout.fillWidth: true
        }

        Button {
            objectName: "invite.done"
            text: "Done"
            highlighted: true
            focus: true
            Layout.alignment: Qt.AlignRight
            onClicked: sheet.close()
            Accessible.name: text
        }
    }
}
