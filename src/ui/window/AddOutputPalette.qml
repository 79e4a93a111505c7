// The "Add output" command palette: what can be added, filtered as one
// types; Enter adds the highlighted one, the arrows move, Escape closes.
import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Vellatone

Popup {
    id: chooser
    objectName: "addOutputPalette"
    modal: true
    focus: true
    width: Math.min(520, parent ? parent.width - 2 * Theme.pad : 520)
    x: parent ? (parent.width - width) / 2 : 0
    y: 72
    padding: Theme.gap
    closePolicy: Popup.CloseOnEscape | Popup.CloseOnPressOutside

    property var entries: App.addableOutputs
    property var shown: entries.filter(e => {
        const f = filterField.text.trim().toLowerCase()
        return f === "" || e.name.toLowerCase().includes(f) || e.detail.toLowerCase().includes(f)
    })

    function addCurrent() {
        if (list.currentIndex < 0 || list.currentIndex >= shown.length) return
        App.addOutput(shown[list.currentIndex].id)
        close()
    }

    onOpened: {
        filterField.text = ""
        list.currentIndex = 0
        filterField.forceActiveFocus()
    }

    background: Rectangle {
        color: Theme.surface
        radius: Theme.radius + 2
        border.color: Theme.border
    }

    contentItem: ColumnLayout {
        spacing: Theme.gap
        TextField {
            id: filterField
            objectName: "addOutputFilter"
            Layout.fillWidth: true
            placeholderText: App.canAddOutput ? qsTr("Add output…")
                                              : qsTr("Eight outputs is the most")
            font.pixelSize: Theme.titleSize
            Accessible.name: qsTr("Filter the outputs that can be added")
            onTextChanged: list.currentIndex = 0
            Keys.onDownPressed: list.currentIndex = Math.min(list.currentIndex + 1, list.count - 1)
            Keys.onUpPressed: list.currentIndex = Math.max(list.currentIndex - 1, 0)
            onAccepted: chooser.addCurrent()
        }
        ListView {
            id: list
            objectName: "addOutputList"
            Layout.fillWidth: true
            Layout.preferredHeight: Math.min(count * 48, 6 * 48)
            clip: true
            model: App.canAddOutput ? chooser.shown : []
            keyNavigationWraps: false
            delegate: ItemDelegate {
                required property var modelData
                required property int index
                objectName: "addOutput." + modelData.id
                width: ListView.view.width
                height: 48
                highlighted: ListView.isCurrentItem
                Accessible.name: qsTr("Add %1").arg(modelData.name)
                contentItem: ColumnLayout {
                    spacing: 0
                    Label {
                        textFormat: Text.PlainText
                        text: modelData.name
                        color: Theme.text
                        font.pixelSize: Theme.bodySize
                        font.weight: Font.DemiBold
                    }
                    Label {
                        textFormat: Text.PlainText
                        text: modelData.detail
                        color: Theme.textMuted
                        font.pixelSize: Theme.smallSize
                    }
                }
                onClicked: {
                    list.currentIndex = index
                    chooser.addCurrent()
                }
            }
        }
        Label {
            textFormat: Text.PlainText
            objectName: "addOutputEmpty"
            visible: list.count === 0
            Layout.fillWidth: true
            Layout.margins: Theme.gap
            wrapMode: Text.WordWrap
            color: Theme.textMuted
            text: !App.canAddOutput ? qsTr("Remove an output to add another.")
                : chooser.entries.length === 0 ? qsTr("Every output already has a row.")
                : qsTr("Nothing matches.")
        }
    }
}
