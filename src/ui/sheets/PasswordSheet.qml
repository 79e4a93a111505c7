// The AirPlay password of one receiver: opened by the model when the
// receiver refuses to play without it, or from the row. The password goes
// to the secret store, never to the settings.
import QtQuick
import QtQuick.Controls
import QtQuick.Layouts

Popup {
    id: sheet

    property QtObject app

    objectName: "passwordSheet"
    modal: true
    focus: true
    anchors.centerIn: Overlay.overlay
    width: Math.min(420, (parent ? parent.width : 420) - 32)
    padding: 24
    closePolicy: Popup.CloseOnEscape

    function submit() {
        if (field.text.length === 0) return
        sheet.app.submitPassword(field.text)
        field.text = ""
        sheet.close()
    }

    onOpened: field.forceActiveFocus()
    onClosed: if (sheet.app && sheet.app.passwordReceiverName !== "") sheet.app.cancelPassword()

    background: Rectangle {
        color: sheet.palette.base
        border.color: sheet.palette.mid
        radius: 10
    }

    Overlay.modal: Rectangle { color: Qt.rgba(0, 0, 0, 0.35) }

    contentItem: ColumnLayout {
        spacing: 12

        Label {
            objectName: "password.title"
            textFormat: Text.PlainText
            text: sheet.app ? sheet.app.passwordReceiverName + " requires a password" : ""
            font.pixelSize: 18
            font.bold: true
            wrapMode: Text.WordWrap
            Layout.fillWidth: true
            Accessible.role: Accessible.Heading
        }

        Label {
            objectName: "password.rejected"
            textFormat: Text.PlainText
            text: "It refused the password saved here. Enter the current one."
            visible: sheet.app ? sheet.app.passwordRejected : false
            wrapMode: Text.WordWrap
            Layout.fillWidth: true
        }

        TextField {
            id: field
            objectName: "password.field"
            echoMode: TextInput.Password
            Layout.fillWidth: true
            Accessible.name: "AirPlay password"
            onAccepted: sheet.submit()
        }

        Label {
            textFormat: Text.PlainText
            text: "It is the AirPlay password set on that device. It is kept in your keyring."
            wrapMode: Text.WordWrap
            color: Qt.rgba(sheet.palette.windowText.r, sheet.palette.windowText.g,
                           sheet.palette.windowText.b, 0.75)
            Layout.fillWidth: true
        }

        RowLayout {
            Layout.alignment: Qt.AlignRight
            spacing: 8
            Button {
                objectName: "password.cancel"
                text: "Cancel"
                onClicked: sheet.close()
            }
            Button {
                objectName: "password.join"
                text: "Join"
                enabled: field.text.length > 0
                highlighted: true
                onClicked: sheet.submit()
            }
        }
    }
}
