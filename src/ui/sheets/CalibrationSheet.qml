// "Measure delay…": how late one output is against another. Pick a method,
// watch it work (which speaker plays, the taps so far, the two settings to
// compare), then keep the result or leave the row as it was.
import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Vellatone.Sheets

Popup {
    id: sheet

    property QtObject app
    property int slot: -1

    readonly property color quiet: Qt.rgba(sheet.palette.windowText.r, sheet.palette.windowText.g,
                                           sheet.palette.windowText.b, 0.7)

    objectName: "calibrationSheet"
    modal: true
    focus: true
    anchors.centerIn: Overlay.overlay
    width: Math.min(480, (parent ? parent.width : 480) - 32)
    padding: 24
    closePolicy: Popup.CloseOnEscape

    onAboutToShow: cal.open(sheet.slot)
    onClosed: cal.cancel()

    CalibrationSheetController {
        id: cal
        app: sheet.app
        onStateChanged: if (cal.phase === "ended" && sheet.opened) sheet.close()
    }

    background: Rectangle {
        color: sheet.palette.base
        border.color: sheet.palette.mid
        radius: 10
    }

    Overlay.modal: Rectangle { color: Qt.rgba(0, 0, 0, 0.35) }

    contentItem: ColumnLayout {
        spacing: 12

        Label {
            objectName: "calibration.title"
            textFormat: Text.PlainText
            text: "How late is " + cal.rowName + "?"
            font.pixelSize: 18
            font.bold: true
            wrapMode: Text.WordWrap
            Layout.fillWidth: true
            Accessible.role: Accessible.Heading
        }

        RowLayout {
            visible: cal.phase === "choosing"
            spacing: 8
            Layout.fillWidth: true
            Label {
                textFormat: Text.PlainText
                text: "Compared with"
            }
            ComboBox {
                objectName: "calibration.reference"
                model: cal.references
                textRole: "name"
                valueRole: "slot"
                Layout.fillWidth: true
                Accessible.name: "Compared with"
                currentIndex: {
                    for (let i = 0; i < cal.references.length; ++i)
                        if (cal.references[i].slot === cal.referenceSlot) return i
                    return -1
                }
                onActivated: (i) => cal.setReference(cal.references[i].slot)
            }
        }

        // The methods, most convenient first.
        Column {
            id: methodList
            visible: cal.phase === "choosing"
            spacing: 6
            Layout.fillWidth: true
            Repeater {
                model: cal.methods
                delegate: Column {
                    required property var modelData
                    width: methodList.width
                    RadioButton {
                        objectName: "calibration.method." + modelData.id
                        text: modelData.title + " · " + modelData.cost
                        checked: cal.method === modelData.id
                        onToggled: if (checked) cal.method = modelData.id
                        Accessible.name: modelData.title
                    }
                    Label {
                        textFormat: Text.PlainText
                        text: modelData.blurb
                        color: sheet.quiet
                        wrapMode: Text.WordWrap
                        leftPadding: 32
                        width: parent.width
                    }
                }
            }
        }

        // Measuring: which speaker is playing now.
        Label {
            objectName: "calibration.playing"
            visible: cal.playingName !== ""
            textFormat: Text.PlainText
            text: cal.method === "tapping"
                  ? "Tap along with the click from " + cal.playingName + "."
                  : "Listening to " + cal.playingName + "…"
            wrapMode: Text.WordWrap
            Layout.fillWidth: true
        }
        BusyIndicator {
            visible: cal.playingName !== "" && cal.method === "microphone"
            running: visible
            Layout.alignment: Qt.AlignHCenter
        }
        ColumnLayout {
            visible: cal.playingName !== "" && cal.method === "tapping"
            spacing: 8
            Layout.fillWidth: true
            Button {
                objectName: "calibration.tap"
                text: "Tap"
                font.pixelSize: 20
                highlighted: true
                Layout.alignment: Qt.AlignHCenter
                Layout.preferredWidth: 160
                Layout.preferredHeight: 64
                onPressed: cal.tap()
            }
            ProgressBar {
                from: 0
                to: cal.minimumTaps
                value: Math.min(cal.progressTaps, cal.minimumTaps)
                Layout.fillWidth: true
            }
            Label {
                objectName: "calibration.progress"
                textFormat: Text.PlainText
                text: cal.progressTaps + " of " + cal.minimumTaps + " taps"
                color: sheet.quiet
                Layout.alignment: Qt.AlignHCenter
            }
        }

        // Comparing: two settings, with the music on every speaker.
        ColumnLayout {
            visible: cal.phase === "comparing"
            spacing: 8
            Layout.fillWidth: true
            Label {
                textFormat: Text.PlainText
                text: "Play each setting with your music, then say which sounded tighter. Round "
                      + cal.round + " of " + cal.maximumRounds + "."
                wrapMode: Text.WordWrap
                Layout.fillWidth: true
            }
            RowLayout {
                spacing: 8
                Layout.fillWidth: true
                Button {
                    objectName: "calibration.playA"
                    text: "A: " + Math.round(cal.candidateA) + " ms"
                    checkable: true
                    checked: cal.playingCandidate === 0
                    onClicked: cal.playCandidate(0)
                    Layout.fillWidth: true
                }
                Button {
                    objectName: "calibration.playB"
                    text: "B: " + Math.round(cal.candidateB) + " ms"
                    checkable: true
                    checked: cal.playingCandidate === 1
                    onClicked: cal.playCandidate(1)
                    Layout.fillWidth: true
                }
            }
            RowLayout {
                spacing: 8
                Layout.fillWidth: true
                Button {
                    objectName: "calibration.chooseA"
                    text: "A was tighter"
                    onClicked: cal.choose("a")
                    Layout.fillWidth: true
                }
                Button {
                    objectName: "calibration.cannotTell"
                    text: "Cannot tell"
                    onClicked: cal.choose("cannotTell")
                    Layout.fillWidth: true
                }
                Button {
                    objectName: "calibration.chooseB"
                    text: "B was tighter"
                    onClicked: cal.choose("b")
                    Layout.fillWidth: true
                }
            }
        }

        Label {
            objectName: "calibration.result"
            visible: cal.phase === "done"
            textFormat: Text.PlainText
            text: cal.resultText
            font.pixelSize: 28
            font.bold: true
            Layout.alignment: Qt.AlignHCenter
        }
        Label {
            visible: cal.phase === "done"
            textFormat: Text.PlainText
            text: "As " + cal.rowName + "'s measured latency. Apply keeps it and sets the row's own delay back to 0."
            color: sheet.quiet
            wrapMode: Text.WordWrap
            Layout.fillWidth: true
        }
        Label {
            objectName: "calibration.message"
            visible: cal.phase === "failed"
            textFormat: Text.PlainText
            text: cal.message
            wrapMode: Text.WordWrap
            Layout.fillWidth: true
        }

        RowLayout {
            Layout.alignment: Qt.AlignRight
            spacing: 8
            Button {
                objectName: "calibration.back"
                text: "Back"
                visible: cal.phase !== "choosing"
                onClicked: cal.back()
            }
            Button {
                objectName: "calibration.cancel"
                text: "Cancel"
                onClicked: sheet.close()
            }
            Button {
                objectName: "calibration.begin"
                text: "Start"
                visible: cal.phase === "choosing"
                highlighted: true
                onClicked: cal.begin()
            }
            Button {
                objectName: "calibration.apply"
                text: "Apply"
                visible: cal.phase === "done"
                highlighted: true
                onClicked: cal.apply()
            }
        }
    }
}
