// A slider with its value written beside it. It follows modelValue, and
// reports a change the user (or the automation hook) made as userValue, so
// that the model's own updates never echo back as edits.
import QtQuick
import QtQuick.Controls
import QtQuick.Layouts

RowLayout {
    id: box

    property alias from: slider.from
    property alias to: slider.to
    property alias stepSize: slider.stepSize
    property alias value: slider.value
    property real modelValue: 0
    property string label
    property string accessibleName

    signal userValue(real v)
    signal released()

    spacing: 6
    Layout.fillWidth: true
    Layout.preferredWidth: 100

    Slider {
        id: slider
        value: box.modelValue
        Layout.fillWidth: true
        Layout.minimumWidth: 80
        property bool built: false
        Component.onCompleted: built = true
        onValueChanged: if (built && Math.abs(value - box.modelValue) > 1e-6) box.userValue(value)
        onPressedChanged: if (!pressed) box.released()
        Keys.onReleased: box.released()
        Accessible.name: box.accessibleName
    }

    Label {
        textFormat: Text.PlainText
        text: box.label
        horizontalAlignment: Text.AlignRight
        Layout.preferredWidth: 62
        opacity: box.enabled ? 1 : 0.5
    }
}
