// The one-time pairing with an AirPlay receiver that shows a code: opened by
// the model when such a receiver asks for pairing, or from the row. It waits
// while the receiver brings up its code, then takes the code; a wrong one or
// a refusal is said here, and the sheet stays until closed.
import QtQuick
import QtQuick.Controls
import QtQuick.Layouts

Popup {
    id: sheet

    property QtObject app

    objectName: "pairingSheet"
    modal: true
    focus: true
    anchors.centerIn: Overlay.overlay
    width: Math.min(420, (parent ? parent.width : 420) - 32)
    padding: 24
    closePolicy: Popup.CloseOnEscape

    readonly property string receiverName: app ? app.pairingReceiverName : ""
    readonly property bool awaiting: app ? app.pairingAwaitingPIN : false

    function submit() {
        if (field.text.length === 0) return
        sheet.app.submitPIN(field.text)
        field.text = ""
    }

    onOpened: field.forceActiveFocus()
    onClosed: if (sheet.app && sheet.app.pairingReceiverName !== "") sheet.app.cancelPairing()
    // Paired (or ended elsewhere): the model let the receiver go.
    onReceiverNameChanged: if (receiverName === "" && opened) close()

    background: Rectangle {
        color: sheet.palette.base
        border.color: sheet.palette.mid
        radius: 10
    }

    Overlay.modal: Rectangle { color: Qt.rgba(0, 0, 0, 0.35) }

    contentItem: ColumnLayout {
        spacing: 12

        Label {
            objectName: "pairing.title"
            textFormat: Text.PlainText
            text: sheet.awaiting ? "Enter the code showing on " + sheet.receiverName
                                 : "Connecting to " + sheet.receiverName + "…"
            font.pixelSize: 18
            font.bold: true
            wrapMode: Text.WordWrap
            Layout.fillWidth: true
            Accessible.role: Accessible.Heading
        }

        Label {
            objectName: "pairing.wait"
            textFormat: Text.PlainText
            text: "Wait for the code to appear on its screen."
            visible: !sheet.awaiting && (sheet.app ? sheet.app.pairingError === "" : true)
            wrapMode: Text.WordWrap
            Layout.fillWidth: true
        }

        TextField {
            id: field
            objectName: "pairing.field"
            inputMethodHints: Qt.ImhDigitsOnly
            enabled: sheet.awaiting
            Layout.fillWidth: true
            Accessible.name: "Pairing code"
            onAccepted: sheet.submit()
        }

        Label {
            objectName: "pairing.error"
            textFormat: Text.PlainText
            text: sheet.app ? sheet.app.pairingError : ""
            visible: text !== ""
            color: "#c0392b"
            wrapMode: Text.WordWrap
            Layout.fillWidth: true
        }

        RowLayout {
            Layout.alignment: Qt.AlignRight
            spacing: 8
            Button {
                objectName: "pairing.cancel"
                text: "Cancel"
                onClicked: sheet.close()
            }
            Button {
                objectName: "pairing.pair"
                text: "Pair"
                enabled: sheet.awaiting && field.text.length > 0
                highlighted: true
                onClicked: sheet.submit()
            }
        }
    }
}
