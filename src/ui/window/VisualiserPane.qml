// The space for the visualiser, with its style: "Spectrum" or "Scope". The
// visualiser module is created here when the build has it; otherwise the
// space stays empty.
import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Vellatone

Rectangle {
    id: pane
    objectName: "visualiserPane"
    radius: Theme.radius
    color: Theme.surface
    border.color: Theme.border
    readonly property string style: App.visualiserStyle === "Scope" ? "Scope" : "Spectrum"
    property var visualiser: null

    Component.onCompleted: {
        if (!App.hasVisualiser) return
        try {
            visualiser = Qt.createQmlObject(
                "import Vellatone.Visualiser\nVisualiser { anchors.fill: parent }", holder,
                "Visualiser")
            visualiser.app = App
            visualiser.style = Qt.binding(() => pane.style)
        } catch (e) {
            console.warn("visualiser: " + e)
        }
    }

    ColumnLayout {
        anchors.fill: parent
        anchors.margins: Theme.gap
        spacing: Theme.gap / 2
        RowLayout {
            Layout.fillWidth: true
            Label {
                textFormat: Text.PlainText
                text: qsTr("Visualiser")
                color: Theme.textMuted
                font.pixelSize: Theme.smallSize
                Layout.fillWidth: true
            }
            Segmented {
                options: ["Spectrum", "Scope"]
                current: pane.style
                namePrefix: "visualiserStyle."
                accessibleName: qsTr("Visualiser style")
                onPicked: (value) => App.setVisualiserStyle(value)
            }
        }
        Item {
            id: holder
            objectName: "visualiserHolder"
            Layout.fillWidth: true
            Layout.fillHeight: true
            clip: true
            Label {
                textFormat: Text.PlainText
                anchors.centerIn: parent
                visible: pane.visualiser === null
                text: App.running ? "" : qsTr("Start playing to see the sound.")
                color: Theme.textMuted
                font.pixelSize: Theme.smallSize
            }
        }
    }
}
