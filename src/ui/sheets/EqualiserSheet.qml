// The equaliser of one row (slot 0 and up) or of the master (slot -1): the
// graph with its handles, the presets, the preamp, and the six bands.
import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Vellatone.Sheets

Popup {
    id: sheet

    property QtObject app
    property int slot: -1

    objectName: "eqSheet"
    modal: true
    focus: true
    anchors.centerIn: Overlay.overlay
    width: Math.min(860, (parent ? parent.width : 860) - 32)
    // On a short window the graph gives up height first.
    height: Math.min(implicitHeight, (parent ? parent.height : implicitHeight) - 32)
    padding: 20
    closePolicy: Popup.CloseOnEscape

    onAboutToShow: eq.refresh()
    onAboutToHide: eq.commit()

    EqualiserSheetController {
        id: eq
        app: sheet.app
        slot: sheet.slot
        onValidChanged: if (!valid && sheet.opened) sheet.close()
    }

    background: Rectangle {
        color: sheet.palette.base
        border.color: sheet.palette.mid
        radius: 10
    }

    Overlay.modal: Rectangle { color: Qt.rgba(0, 0, 0, 0.35) }

    contentItem: ColumnLayout {
        spacing: 14

        RowLayout {
            Layout.fillWidth: true
            spacing: 12

            Label {
                textFormat: Text.PlainText
                text: eq.title
                font.pixelSize: 18
                font.bold: true
                elide: Text.ElideRight
                Layout.fillWidth: true
                Accessible.role: Accessible.Heading
            }

            Label {
                id: clipMark
                textFormat: Text.PlainText
                objectName: "eqSheet.clip"
                text: "Clipping"
                color: "white"
                font.bold: true
                leftPadding: 10
                rightPadding: 10
                topPadding: 3
                bottomPadding: 3
                opacity: eq.clipping ? 1 : 0
                background: Rectangle { color: "#d63a2f"; radius: height / 2 }
                Accessible.name: eq.clipping ? "The boost is clipping" : ""
                Behavior on opacity { NumberAnimation { duration: 120 } }
            }

            Switch {
                id: onSwitch
                objectName: "eqSheet.enabled"
                focus: true
                checked: eq.eqEnabled
                onToggled: eq.setEqEnabled(checked)
                Accessible.name: "Equaliser on"
            }

            // Beside the switch rather than in it, where a tight row would
            // elide it.
            Label {
                textFormat: Text.PlainText
                text: "On"
                MouseArea {
                    anchors.fill: parent
                    onClicked: {
                        onSwitch.toggle()
                        onSwitch.toggled()
                    }
                }
            }
        }

        EqGraph {
            id: graph
            objectName: "eqSheet.graph"
            controller: eq
            Layout.fillWidth: true
            Layout.fillHeight: true
            Layout.preferredHeight: 220
            Layout.minimumHeight: 110
            backgroundColor: sheet.palette.window
            curveColor: sheet.palette.highlight
            textColor: Qt.rgba(sheet.palette.text.r, sheet.palette.text.g, sheet.palette.text.b, 0.55)
            gridColor: Qt.rgba(sheet.palette.text.r, sheet.palette.text.g, sheet.palette.text.b, 0.12)
            spectrumColor: Qt.rgba(sheet.palette.text.r, sheet.palette.text.g, sheet.palette.text.b, 0.13)
            handleColor: sheet.palette.window
            Accessible.role: Accessible.Graphic
            Accessible.name: "Response curve"

            Rectangle {
                anchors.fill: parent
                color: "transparent"
                border.color: sheet.palette.mid
                radius: 4
            }
        }

        RowLayout {
            Layout.fillWidth: true
            spacing: 10

            Label { textFormat: Text.PlainText; text: "Preset" }

            ComboBox {
                id: preset
                objectName: "eqSheet.preset"
                model: eq.presetNames
                currentIndex: eq.matchedPreset
                displayText: currentIndex < 0 ? "Custom" : currentText
                Layout.preferredWidth: 170
                property bool built: false
                Component.onCompleted: built = true
                onCurrentIndexChanged: if (built && currentIndex >= 0 && currentIndex !== eq.matchedPreset)
                                           eq.applyPreset(currentIndex)
                Accessible.name: "Preset"
            }

            Label {
                textFormat: Text.PlainText
                text: preset.currentIndex >= 0 ? eq.presetDetails[preset.currentIndex] : ""
                color: Qt.rgba(sheet.palette.windowText.r, sheet.palette.windowText.g,
                               sheet.palette.windowText.b, 0.7)
                elide: Text.ElideRight
                Layout.fillWidth: true
            }

            Label { textFormat: Text.PlainText; text: "Preamp" }

            Slider {
                id: preamp
                objectName: "eqSheet.preamp"
                from: -24
                to: 24
                stepSize: 0.5
                value: eq.preampDb
                Layout.preferredWidth: 150
                property bool built: false
                Component.onCompleted: built = true
                onValueChanged: if (built && Math.abs(value - eq.preampDb) > 1e-6) eq.setPreampDb(value)
                onPressedChanged: if (!pressed) eq.commit()
                Accessible.name: "Preamp"
            }

            Label {
                textFormat: Text.PlainText
                text: SheetFormat.db(eq.preampDb)
                Layout.preferredWidth: 62
                horizontalAlignment: Text.AlignRight
            }
        }

        ColumnLayout {
            Layout.fillWidth: true
            spacing: 2

            RowLayout {
                Layout.fillWidth: true
                spacing: 12
                Item { Layout.preferredWidth: 16 }
                Label { textFormat: Text.PlainText; text: "Kind"; font.bold: true; Layout.preferredWidth: 130 }
                Label { textFormat: Text.PlainText; text: "Frequency"; font.bold: true; Layout.fillWidth: true; Layout.preferredWidth: 100 }
                Label { textFormat: Text.PlainText; text: "Gain"; font.bold: true; Layout.fillWidth: true; Layout.preferredWidth: 100 }
                Label { textFormat: Text.PlainText; text: "Q"; font.bold: true; Layout.fillWidth: true; Layout.preferredWidth: 100 }
            }

            // Written out rather than repeated, so that each band's controls
            // are plain children that an object search finds.
            EqualiserBand { controller: eq; band: 0; highlighted: graph.activeBand === band }
            EqualiserBand { controller: eq; band: 1; highlighted: graph.activeBand === band }
            EqualiserBand { controller: eq; band: 2; highlighted: graph.activeBand === band }
            EqualiserBand { controller: eq; band: 3; highlighted: graph.activeBand === band }
            EqualiserBand { controller: eq; band: 4; highlighted: graph.activeBand === band }
            EqualiserBand { controller: eq; band: 5; highlighted: graph.activeBand === band }
        }

        RowLayout {
            Layout.fillWidth: true
            spacing: 10

            Button {
                objectName: "eqSheet.copyToAll"
                text: "Copy to all outputs"
                visible: !eq.isMaster
                enabled: eq.canCopyToAll
                onClicked: eq.copyToAll()
                Accessible.name: text
            }

            Item { Layout.fillWidth: true }

            Button {
                objectName: "eqSheet.done"
                text: "Done"
                highlighted: true
                onClicked: sheet.close()
                Accessible.name: text
            }
        }
    }
}
